// The file-event tasks: one capture record carried through task channels.
//
// Three describe changes the inotify monitor saw (created, updated, deleted;
// made from a path, so only `entry.path` is set). Two announce unusual
// captures found by the start-up scan (missing attributes; attributes but an
// empty file; made from the scanned record, metadata included). The tracker
// handles the three change tasks, the cleaner also handles created; the two
// scan tasks are for other listeners of the tracker's channel.
//
// Every event is built with the task version ~0UL, the version its handlers
// are registered with. type() and name() are computed once per class.
//
// Thread-safety: a task is owned by one thread at a time; the per-class
// statics are initialised once, thread-safely.
#pragma once

#include <csl/fs_entry.hpp>

#include <cdl/task.hpp>

#include <string>

namespace csl {

// The version every file-event task carries and is registered under.
constexpr unsigned long FS_EVENT_VERSION = static_cast<unsigned long>(-1);

class fs_entry_event : public cdl::task {
 public:
  explicit fs_entry_event(const std::string& path) : cdl::task(FS_EVENT_VERSION), entry(path) {}
  explicit fs_entry_event(const fs_entry& e) : cdl::task(FS_EVENT_VERSION), entry(e) {}
  ~fs_entry_event() override;

  const cdl::task_type& type() const override = 0;
  const std::string& name() const override = 0;

  fs_entry entry;
};

class fs_entry_created : public fs_entry_event {
 public:
  using fs_entry_event::fs_entry_event;
  const cdl::task_type& type() const override;
  const std::string& name() const override;
  static const std::string& name_static();
};

class fs_entry_updated : public fs_entry_event {
 public:
  using fs_entry_event::fs_entry_event;
  const cdl::task_type& type() const override;
  const std::string& name() const override;
  static const std::string& name_static();
};

class fs_entry_deleted : public fs_entry_event {
 public:
  using fs_entry_event::fs_entry_event;
  const cdl::task_type& type() const override;
  const std::string& name() const override;
  static const std::string& name_static();
};

class fs_entry_missing_xattr_at_init : public fs_entry_event {
 public:
  using fs_entry_event::fs_entry_event;
  const cdl::task_type& type() const override;
  const std::string& name() const override;
};

class fs_entry_has_xattr_but_empty_at_init : public fs_entry_event {
 public:
  using fs_entry_event::fs_entry_event;
  const cdl::task_type& type() const override;
  const std::string& name() const override;
};

}  // namespace csl
