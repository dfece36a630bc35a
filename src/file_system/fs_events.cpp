#include <csl/fs_events.hpp>

namespace csl {

fs_entry_event::~fs_entry_event() = default;

// type() identifies the class by its task name once; name() copies the
// identity's name once.
#define FAITRA_EVENT_IDENTITY(cls)                                                      \
  const cdl::task_type& cls::type() const {                                             \
    static const cdl::task_type stored_type = cdl::task_type::identify_from_name(#cls); \
    return stored_type;                                                                 \
  }                                                                                     \
  const std::string& cls::name() const {                                                \
    static const std::string stored_name = type().name();                               \
    return stored_name;                                                                 \
  }

#define FAITRA_EVENT_NAME_STATIC(cls)          \
  const std::string& cls::name_static() {      \
    static const std::string stored_name(#cls); \
    return stored_name;                        \
  }

FAITRA_EVENT_IDENTITY(fs_entry_created)
FAITRA_EVENT_IDENTITY(fs_entry_updated)
FAITRA_EVENT_IDENTITY(fs_entry_deleted)
FAITRA_EVENT_IDENTITY(fs_entry_missing_xattr_at_init)
FAITRA_EVENT_IDENTITY(fs_entry_has_xattr_but_empty_at_init)

FAITRA_EVENT_NAME_STATIC(fs_entry_created)
FAITRA_EVENT_NAME_STATIC(fs_entry_updated)
FAITRA_EVENT_NAME_STATIC(fs_entry_deleted)

#undef FAITRA_EVENT_IDENTITY
#undef FAITRA_EVENT_NAME_STATIC

}  // namespace csl
