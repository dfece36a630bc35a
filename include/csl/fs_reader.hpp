// csl::fs_reader: turns the files of one directory into catalogue records.
//
// collect_files lists a directory once with raw getdents64 calls (16 MB of
// records per call), keeps the names the filter accepts (called with the
// bare name), reads each file's status and its four capture attributes,
// reports files without a hash attribute, and files with one whose size is
// at most the empty-file limit, to the two callbacks, and inserts every
// record into the cache. It never recurses and never writes attributes.
//
// Deliberate behaviours kept for compatibility:
//  - the entry type is read from the record's last byte, which is normally
//    zero, so the type test lets almost everything through (directories and
//    "." included); the filter is what keeps unwanted names out;
//  - when stat fails the same entry is examined again, filter included,
//    without advancing, until a stat succeeds; a filter that rejects a name
//    it has already seen fail ends that loop;
//  - an attribute value is read into a 256-byte buffer: 255 bytes is the
//    usable maximum; longer, empty or unreadable values read as absent;
//  - a malformed numeric attribute raises out of the scan (cdl::exception
//    family from cdl::from_str).
//
// A large directory is scanned on two threads: a helper thread calls the
// filter, stat and getxattr for the next records while the calling thread
// runs the callbacks and inserts, still one record at a time in directory
// order (readers with an on-loaded callback always scan on one thread).
//
// Thread-safety: not thread-safe; one attribute buffer serves every call
// (the helper thread of a scan has its own).
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_entry.hpp>

#include <cdl/log.hpp>
#include <cdl/nullable.hpp>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace csl {

class fs_reader {
 public:
  using filter_type = std::function<bool(const std::string&)>;
  using entry_callback = std::function<void(fs_entry&)>;

  // The number of bytes of directory records read per getdents64 call.
  static constexpr unsigned long DIRENT_BUFFER_SIZE = 16000000;
  static constexpr unsigned long XATTR_BUFFER_SIZE = 256;

  fs_reader(filter_type filter, unsigned long empty_file_size_limit, const std::string& hash_attribute,
            const std::string& start_attribute, const std::string& end_attribute,
            const std::string& creation_attribute, entry_callback on_loaded, cdl::log* log);
  ~fs_reader();
  fs_reader(const fs_reader&) = delete;
  fs_reader& operator=(const fs_reader&) = delete;

  // Scans `dir`; raises cdl::exception when it cannot be opened or read.
  void collect_files(const std::string& dir, fs_cache& cache, entry_callback on_missing_xattr,
                     entry_callback on_has_xattr_but_empty);

  // stat: modification time (seconds) into creation_ts, size into
  // file_size. False, with nothing changed, when stat fails.
  bool load_attributes(fs_entry& e);
  // Reads the four attributes; returns whether the record now has a key.
  bool load_extended_attributes(fs_entry& e);

  template <typename T>
  cdl::nullable<T> load_xattr(const std::string& path, const std::string& attr);

 private:
  // Batches of at least this many directory records are scanned on two
  // threads (the system calls of one record overlap the cataloguing of the
  // one before); smaller ones are not worth starting a thread for.
  static constexpr size_t PIPELINE_MIN_ENTRIES = 256;

  struct batch_context {
    const std::string& dir;
    fs_cache& cache;
    entry_callback& on_missing_xattr;
    entry_callback& on_has_xattr_but_empty;
  };
  template <typename T>
  static cdl::nullable<T> read_xattr(const std::string& path, const std::string& attr, char* buffer);
  void read_extended_attributes(fs_entry& e, char* buffer) const;
  std::shared_ptr<fs_entry> next_candidate(const batch_context& context, const char* batch, long size, long& offset);
  void report_and_insert(const batch_context& context, std::shared_ptr<fs_entry>&& entry);
  void collect_batch(const batch_context& context, const char* batch, long size);
  void collect_batch_pipelined(const batch_context& context, const char* batch, long size);

  std::atomic<bool> _flag{false};
  filter_type _filter;
  unsigned long _empty_file_size_limit;
  std::string _hash_attribute;
  std::string _start_attribute;
  std::string _end_attribute;
  std::string _creation_attribute;
  entry_callback _on_loaded;
  cdl::log* _log;
  char _xattr_buffer[XATTR_BUFFER_SIZE];
};

}  // namespace csl
