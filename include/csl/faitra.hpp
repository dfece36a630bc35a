// Umbrella header: every public header of the faitra library and of the
// runtime-support (cdl) pieces it carries.
#pragma once

#include <cdl/exception.hpp>
#include <cdl/format.hpp>
#include <cdl/json_reader.hpp>
#include <cdl/json_values.hpp>
#include <cdl/log.hpp>
#include <cdl/nullable.hpp>
#include <cdl/synchronized.hpp>
#include <cdl/utils.hpp>

#include <csl/fs_cache.hpp>
#include <csl/fs_entry.hpp>
#include <csl/utils/recursive_shared_mutex.hpp>
#include <csl/fs_events.hpp>

#include <cdl/impl/task_mapping.hpp>
#include <cdl/task_ptr.hpp>
#include <csl/fs_reader.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/validation.hpp>
#include <csl/fs_cleaner.hpp>
#include <csl/fs_storage.hpp>

#include <cdl/ref_guard.hpp>
