// The identities of the start-up scan's two task classes, for subscribing
// to them.
//
// The tracker's scan pushes an fs_entry_missing_xattr_at_init task for each
// capture without attributes and an fs_entry_has_xattr_but_empty_at_init
// task for each capture with attributes but (nearly) no bytes. The library
// registers no handler for them and, unlike the created, updated and
// deleted tasks, the classes have no name_static() by which a handler could
// be registered. These functions ask one object of each class for its
// type(), which is the identity the scan's tasks report, so that a host can
// subscribe without naming the classes' type names itself:
//
//   channel.register_task_handler_as(missing_attributes_task_type(),
//       &C::on_missing, this, cdl::task_handler_order::normal, csl::FS_EVENT_VERSION);
//
// Thread-safety: each identity is computed once, thread-safely.
#pragma once

#include <cdl/task.hpp>

namespace faitra_host {

const cdl::task_type& missing_attributes_task_type();
const cdl::task_type& empty_attributes_task_type();

}  // namespace faitra_host
