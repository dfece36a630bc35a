#include <cdl/exception.hpp>
#include <cdl/sys.hpp>

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace cdl {

void sys_remove_path(const std::string& path, bool tolerate_missing) {
  if (::unlink(path.c_str()) == 0) return;
  int error = errno;
  if (error == EISDIR) {
    if (::rmdir(path.c_str()) == 0) return;
    error = errno;
  }
  if (error == ENOENT && tolerate_missing) return;
  throw exception(CDL_FILE_NAME, __LINE__, "%s: %s", path.c_str(), std::strerror(error));
}

}  // namespace cdl
