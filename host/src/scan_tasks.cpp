#include <faitra/host/scan_tasks.hpp>

#include <csl/fs_events.hpp>

namespace faitra_host {

const cdl::task_type& missing_attributes_task_type() {
  static const cdl::task_type type = csl::fs_entry_missing_xattr_at_init(csl::fs_entry()).type();
  return type;
}

const cdl::task_type& empty_attributes_task_type() {
  static const cdl::task_type type = csl::fs_entry_has_xattr_but_empty_at_init(csl::fs_entry()).type();
  return type;
}

}  // namespace faitra_host
