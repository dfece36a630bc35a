// Operating-system helpers of the host runtime.
#pragma once

#include <string>

namespace cdl {

// Removes the file (or empty directory) at `path` with unlink(2) (rmdir(2)
// for a directory). When `tolerate_missing` is true a path that is already
// gone counts as removed. Raises cdl::exception "<path>: <reason>" on failure.
void sys_remove_path(const std::string& path, bool tolerate_missing);

}  // namespace cdl
