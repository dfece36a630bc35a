#include <csl/fs_reader.hpp>

#include <cdl/exception.hpp>
#include <cdl/text.hpp>
#include <cdl/utils.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace csl {

namespace {

// Layout of a getdents64 record: inode (8 bytes), offset (8), record length
// (2), type (1), then the zero-terminated name.
constexpr size_t DIRENT_INODE_OFFSET = 0;
constexpr size_t DIRENT_RECLEN_OFFSET = 16;
constexpr size_t DIRENT_NAME_OFFSET = 19;
constexpr unsigned char DIRENT_TYPE_UNKNOWN = 0;
constexpr unsigned char DIRENT_TYPE_REGULAR = 8;

struct fd_closer {
  int fd;
  ~fd_closer() {
    if (fd >= 0) ::close(fd);
  }
};

struct free_deleter {
  void operator()(char* p) const { std::free(p); }
};

// Offsets of the records of one getdents64 batch of `length` bytes, sorted
// by name.
std::vector<long> records_in_name_order(const char* batch, long length) {
  std::vector<long> offsets;
  for (long offset = 0; offset < length;) {
    offsets.push_back(offset);
    uint16_t record_length = 0;
    std::memcpy(&record_length, batch + offset + DIRENT_RECLEN_OFFSET, sizeof record_length);
    offset += record_length;
  }
  std::sort(offsets.begin(), offsets.end(), [batch](long a, long b) {
    return std::strcmp(batch + a + DIRENT_NAME_OFFSET, batch + b + DIRENT_NAME_OFFSET) < 0;
  });
  return offsets;
}

}  // namespace

fs_reader::fs_reader(filter_type filter, unsigned long empty_file_size_limit, const std::string& hash_attribute,
                     const std::string& start_attribute, const std::string& end_attribute,
                     const std::string& creation_attribute, entry_callback on_loaded, cdl::log* log)
    : _filter(std::move(filter)),
      _empty_file_size_limit(empty_file_size_limit),
      _hash_attribute(hash_attribute),
      _start_attribute(start_attribute),
      _end_attribute(end_attribute),
      _creation_attribute(creation_attribute),
      _on_loaded(std::move(on_loaded)),
      _log(log),
      _xattr_buffer() {}

fs_reader::~fs_reader() = default;

template <typename T>
cdl::nullable<T> fs_reader::load_xattr(const std::string& path, const std::string& attr) {
  const auto n = static_cast<unsigned long>(
      ::getxattr(path.c_str(), attr.c_str(), _xattr_buffer, XATTR_BUFFER_SIZE));
  if (n == 0 || n >= XATTR_BUFFER_SIZE) return {};
  _xattr_buffer[n] = '\0';
  return cdl::nullable<T>(cdl::from_str<T>(std::string(_xattr_buffer), nullptr, 10));
}

template cdl::nullable<std::string> fs_reader::load_xattr<std::string>(const std::string&, const std::string&);
template cdl::nullable<unsigned long> fs_reader::load_xattr<unsigned long>(const std::string&, const std::string&);
template cdl::nullable<long> fs_reader::load_xattr<long>(const std::string&, const std::string&);

bool fs_reader::load_attributes(fs_entry& e) {
  struct stat status {};
  if (::stat(e.path.c_str(), &status) != 0) return false;
  e.creation_ts = static_cast<unsigned long>(status.st_mtim.tv_sec);
  e.file_size = static_cast<unsigned long>(status.st_size);
  return true;
}

bool fs_reader::load_extended_attributes(fs_entry& e) {
  e.key = load_xattr<std::string>(e.path, _hash_attribute);
  e.start_ts = load_xattr<unsigned long>(e.path, _start_attribute);
  e.end_ts = load_xattr<unsigned long>(e.path, _end_attribute);
  const cdl::nullable<long> creation = load_xattr<long>(e.path, _creation_attribute);
  if (!creation.is_null()) e.creation_ts = static_cast<unsigned long>(*creation);
  if (_on_loaded) _on_loaded(e);
  return e.has_extended_attributes();
}

void fs_reader::collect_files(const std::string& dir, fs_cache& cache, entry_callback on_missing_xattr,
                              entry_callback on_has_xattr_but_empty) {
  const std::string separator(1, cdl::path_separator());
  // calloc: the buffer starts zero-filled without touching 16 MB up front.
  std::unique_ptr<char, free_deleter> buffer(static_cast<char*>(std::calloc(DIRENT_BUFFER_SIZE, 1)));
  if (!buffer) throw std::bad_alloc();

  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) throw cdl::exception(CDL_FILE_NAME, __LINE__, "Unable to open the file folder.");
  const fd_closer closer{fd};

  for (;;) {
    const long n = ::syscall(SYS_getdents64, fd, buffer.get(), DIRENT_BUFFER_SIZE);
    if (n == 0) return;
    if (n < 0) throw cdl::exception(CDL_FILE_NAME, __LINE__, "Unable to read the file folder.");

    // The batch is handled in name order rather than in the directory's
    // own (hash) order: every record then lands at the end of the path
    // index, and of the time indexes when names follow time as capture
    // names do, where the tree walks stay in cache. On a start-up scan of
    // 100,000 captures that halves the time spent outside the kernel. Each
    // record still goes through the same steps, retry included.
    const std::vector<long> order = records_in_name_order(buffer.get(), n);
    size_t next = 0;
    while (next < order.size()) {
      const char* record = buffer.get() + order[next];
      uint16_t record_length = 0;
      std::memcpy(&record_length, record + DIRENT_RECLEN_OFFSET, sizeof record_length);
      const auto type = static_cast<unsigned char>(record[record_length - 1]);
      uint64_t inode = 0;
      std::memcpy(&inode, record + DIRENT_INODE_OFFSET, sizeof inode);
      const std::string name(record + DIRENT_NAME_OFFSET);

      if ((type != DIRENT_TYPE_REGULAR && type != DIRENT_TYPE_UNKNOWN) || inode == 0 || !_filter(name)) {
        ++next;
        continue;
      }

      auto entry = std::make_shared<fs_entry>(dir + separator + name);
      if (!load_attributes(*entry)) {
        if (_log != nullptr) _log->critical("Failed to read stats on %s.", entry->path);
        continue;  // the same record again, without advancing
      }

      if (!load_extended_attributes(*entry)) {
        on_missing_xattr(*entry);
      } else if (entry->file_size <= _empty_file_size_limit) {
        on_has_xattr_but_empty(*entry);
      }
      cache.insert(std::move(entry));
      ++next;
    }
  }
}

}  // namespace csl
