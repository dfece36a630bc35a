#include <csl/fs_reader.hpp>

#include "scan_handoff.hpp"

#include <cdl/exception.hpp>
#include <cdl/text.hpp>
#include <cdl/utils.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <thread>

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

uint16_t record_length_at(const char* record) {
  uint16_t length = 0;
  std::memcpy(&length, record + DIRENT_RECLEN_OFFSET, sizeof length);
  return length;
}

size_t entries_in(const char* batch, long size) {
  size_t count = 0;
  for (long offset = 0; offset < size; offset += record_length_at(batch + offset)) ++count;
  return count;
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
  return read_xattr<T>(path, attr, _xattr_buffer);
}

template <typename T>
cdl::nullable<T> fs_reader::read_xattr(const std::string& path, const std::string& attr, char* buffer) {
  const auto n = static_cast<unsigned long>(::getxattr(path.c_str(), attr.c_str(), buffer, XATTR_BUFFER_SIZE));
  if (n == 0 || n >= XATTR_BUFFER_SIZE) return {};
  buffer[n] = '\0';
  return cdl::nullable<T>(cdl::from_str<T>(std::string(buffer), nullptr, 10));
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
  read_extended_attributes(e, _xattr_buffer);
  if (_on_loaded) _on_loaded(e);
  return e.has_extended_attributes();
}

void fs_reader::read_extended_attributes(fs_entry& e, char* buffer) const {
  e.key = read_xattr<std::string>(e.path, _hash_attribute, buffer);
  e.start_ts = read_xattr<unsigned long>(e.path, _start_attribute, buffer);
  e.end_ts = read_xattr<unsigned long>(e.path, _end_attribute, buffer);
  const cdl::nullable<long> creation = read_xattr<long>(e.path, _creation_attribute, buffer);
  if (!creation.is_null()) e.creation_ts = static_cast<unsigned long>(*creation);
}

void fs_reader::collect_files(const std::string& dir, fs_cache& cache, entry_callback on_missing_xattr,
                              entry_callback on_has_xattr_but_empty) {
  // calloc: the buffer starts zero-filled without touching 16 MB up front.
  std::unique_ptr<char, free_deleter> buffer(static_cast<char*>(std::calloc(DIRENT_BUFFER_SIZE, 1)));
  if (!buffer) throw std::bad_alloc();

  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) throw cdl::exception(CDL_FILE_NAME, __LINE__, "Unable to open the file folder.");
  const fd_closer closer{fd};

  const batch_context context{dir, cache, on_missing_xattr, on_has_xattr_but_empty};
  for (;;) {
    const long n = ::syscall(SYS_getdents64, fd, buffer.get(), DIRENT_BUFFER_SIZE);
    if (n == 0) return;
    if (n < 0) throw cdl::exception(CDL_FILE_NAME, __LINE__, "Unable to read the file folder.");
    // An on-loaded callback must see each record on the scanning thread, in
    // turn with the other callbacks: such a reader scans on one thread.
    if (!_on_loaded && entries_in(buffer.get(), n) >= PIPELINE_MIN_ENTRIES) {
      collect_batch_pipelined(context, buffer.get(), n);
    } else {
      collect_batch(context, buffer.get(), n);
    }
  }
}

// The next record of `batch` from `offset` that the type, inode and filter
// tests let through, as a new record with its path; null at the end of the
// batch. `offset` is left at that record.
std::shared_ptr<fs_entry> fs_reader::next_candidate(const batch_context& context, const char* batch, long size,
                                                    long& offset) {
  while (offset < size) {
    const char* record = batch + offset;
    const uint16_t record_length = record_length_at(record);
    const auto type = static_cast<unsigned char>(record[record_length - 1]);
    uint64_t inode = 0;
    std::memcpy(&inode, record + DIRENT_INODE_OFFSET, sizeof inode);
    const std::string name(record + DIRENT_NAME_OFFSET);
    if ((type == DIRENT_TYPE_REGULAR || type == DIRENT_TYPE_UNKNOWN) && inode != 0 && _filter(name)) {
      std::string path;
      path.reserve(context.dir.size() + 1 + name.size());
      path.append(context.dir).append(1, cdl::path_separator()).append(name);
      return std::make_shared<fs_entry>(std::move(path));
    }
    offset += record_length;
  }
  return nullptr;
}

void fs_reader::report_and_insert(const batch_context& context, std::shared_ptr<fs_entry>&& entry) {
  if (!entry->has_extended_attributes()) {
    context.on_missing_xattr(*entry);
  } else if (entry->file_size <= _empty_file_size_limit) {
    context.on_has_xattr_but_empty(*entry);
  }
  context.cache.insert(std::move(entry));
}

void fs_reader::collect_batch(const batch_context& context, const char* batch, long size) {
  long offset = 0;
  while (auto entry = next_candidate(context, batch, size, offset)) {
    if (!load_attributes(*entry)) {
      if (_log != nullptr) _log->critical("Failed to read stats on %s.", entry->path);
      continue;  // the same record again, filter included, without advancing
    }
    load_extended_attributes(*entry);
    report_and_insert(context, std::move(entry));
    offset += record_length_at(batch + offset);
  }
}

// The same scan on two threads: a helper thread makes the records (filter,
// stat, the four getxattr calls) while this thread runs the callbacks and
// inserts, record by record in directory order, so the system calls of the
// next records overlap the cataloguing of the previous ones. The helper
// stops at the first exception, which this thread rethrows after the records
// made before it, as the one-thread scan would.
void fs_reader::collect_batch_pipelined(const batch_context& context, const char* batch, long size) {
  scan_handoff handoff;
  std::thread maker([&] {
    char buffer[XATTR_BUFFER_SIZE];
    try {
      long offset = 0;
      while (!handoff.stopped()) {
        auto entry = next_candidate(context, batch, size, offset);
        if (!entry) break;
        if (!load_attributes(*entry)) {
          if (_log != nullptr) _log->critical("Failed to read stats on %s.", entry->path);
          continue;
        }
        read_extended_attributes(*entry, buffer);
        handoff.add(std::move(entry));
        offset += record_length_at(batch + offset);
      }
      handoff.finish(nullptr);
    } catch (...) {
      handoff.finish(std::current_exception());
    }
  });
  struct joiner {
    scan_handoff& handoff;
    std::thread& thread;
    ~joiner() {
      handoff.stop();
      thread.join();
    }
  } join_on_exit{handoff, maker};
  scan_handoff::chunk records;
  while (handoff.take(records)) {
    for (auto& entry : records) report_and_insert(context, std::move(entry));
  }
}

}  // namespace csl
