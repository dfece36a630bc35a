#include <csl/fs_storage.hpp>

#include <cdl/impl/task_mapping.hpp>
#include <cdl/json_reader.hpp>
#include <cdl/json_values.hpp>
#include <cdl/sys.hpp>

#include <sys/statvfs.h>
#include <unistd.h>

#include <chrono>
#include <exception>

namespace csl {

thread_local std::unordered_map<fs_storage*, std::vector<fs_entry>> fs_storage::_tmp_vec;

namespace {
// The delete thread re-checks the stop flag at least this often: the flag is
// set without the queue mutex, so a wake-up can slip in between the
// thread's check and its wait.
constexpr auto STOP_CHECK_PERIOD = std::chrono::milliseconds(50);
}  // namespace

void fs_storage::state::from_json(const rapidjson::Document& doc, cdl::validation_error_list&,
                                  cdl::api_version_t<int>, cdl::print_type_t<int>, cdl::field_specs rules) {
  if (!doc.IsObject()) return;
  const auto disk_space = doc.FindMember("disk_space");
  if (disk_space == doc.MemberEnd()) return;
  cdl::set_from_json(used, disk_space->value, "used", rules);
  cdl::set_from_json(total, disk_space->value, "total", rules);
}

void fs_storage::state::to_json(cdl::json_writer& writer, cdl::api_version_t<int>, cdl::print_type_t<int>) const {
  writer.begin_object();
  writer.key("disk_space", true);
  writer.begin_object();
  writer.key("used", true);
  writer.value(used, cdl::api_version_t<int>(), cdl::print_type_t<int>());
  writer.key("total", true);
  writer.value(total, cdl::api_version_t<int>(), cdl::print_type_t<int>());
  writer.end_object();
  writer.end_object();
}

fs_storage::shared_guard::shared_guard(const fs_storage& storage) : _guard(*storage._cache) {}

fs_storage::fs_storage(cdl::runtime& runtime, std::shared_ptr<fs_cache> cache, std::shared_ptr<fs_tracker> tracker,
                       cdl::log* log)
    : _paths(tracker->paths()), _cache(std::move(cache)), _tracker(std::move(tracker)), _log(log) {
  runtime.register_start_callback(&fs_storage::handle_start, this);
  runtime.register_stop_callback(&fs_storage::handle_stop, this);
}

fs_storage::~fs_storage() {
  // The runtime's stop callback normally ran already; never let a joinable
  // thread reach its destructor.
  if (_delete_thread.joinable()) handle_stop();
}

void fs_storage::handle_start() {
  _running = true;
  _delete_thread = std::thread(&fs_storage::delete_thread, this);
}

void fs_storage::handle_stop() {
  _running = false;
  _queue_cv.notify_all();
  if (_delete_thread.joinable()) _delete_thread.join();
}

class fs_storage::state fs_storage::state() const {
  struct statvfs figures {};
  ::statvfs(_paths.begin()->c_str(), &figures);
  class state result;
  result.total = figures.f_bsize * figures.f_blocks;
  result.used = result.total - figures.f_bsize * figures.f_bfree;
  return result;
}

bool fs_storage::mark(fs_entry& record, fs_entry::deletion_by by) {
  auto expected = fs_entry::deletion_by::none;
  if (!record.deletion.compare_exchange_strong(expected, by)) return false;
  if (_log != nullptr) _log->info("Marking capture file to be deleted: %s", record.path);
  return true;
}

void fs_storage::enqueue(std::vector<fs_entry>& records) {
  std::lock_guard<std::mutex> lock(_queue_mutex);
  _delete_queue.insert(_delete_queue.end(), records.begin(), records.end());
  _queue_cv.notify_all();
}

bool fs_storage::delete_by_path(const std::string& path, fs_entry::deletion_by by) {
  return delete_by_path_impl(nullptr, path, by);
}

bool fs_storage::delete_by_path(fs_entry& out, const std::string& path, fs_entry::deletion_by by) {
  return delete_by_path_impl(&out, path, by);
}

bool fs_storage::delete_by_path_impl(fs_entry* out, const std::string& path, fs_entry::deletion_by by) {
  shared_guard guard(*this);
  fs_entry* const position = _cache->path_cache_rw().lookup(path);
  if (position == nullptr) return false;
  fs_entry& record = *position;
  if (!mark(record, by)) return false;
  {
    std::lock_guard<std::mutex> lock(_queue_mutex);
    _delete_queue.push_back(record);
    _queue_cv.notify_all();
  }
  if (out != nullptr) *out = record;
  return true;
}

bool fs_storage::delete_by_time(unsigned long start, unsigned long end, bool by_start_ts, fs_entry::deletion_by by) {
  return delete_by_time_impl(nullptr, start, end, by_start_ts, by);
}

bool fs_storage::delete_by_time(std::vector<fs_entry>& out, unsigned long start, unsigned long end,
                                bool by_start_ts, fs_entry::deletion_by by) {
  return delete_by_time_impl(&out, start, end, by_start_ts, by);
}

bool fs_storage::delete_by_time_impl(std::vector<fs_entry>* out, unsigned long start, unsigned long end,
                                     bool by_start_ts, fs_entry::deletion_by by) {
  if (start > end) return false;
  shared_guard guard(*this);
  std::vector<fs_entry>& scratch = _tmp_vec[this];
  scratch.clear();
  const fs_cache::ts_index& index = by_start_ts ? _cache->start_ts_cache_rw() : _cache->creation_ts_cache();
  auto first = index.lower_bound(start);
  if (first == index.end()) return false;
  const auto last = index.upper_bound(end);
  if (first == last) return false;
  for (; first != last; ++first) {
    fs_entry& record = *first->second;
    if (!mark(record, by)) continue;
    scratch.push_back(record);
    if (out != nullptr) out->push_back(record);
  }
  enqueue(scratch);
  const bool marked = !scratch.empty();
  scratch.clear();
  return marked;
}

size_t fs_storage::clear(fs_entry::deletion_by by) {
  shared_guard guard(*this);
  std::vector<fs_entry>& scratch = _tmp_vec[this];
  scratch.clear();
  for (const auto& record : _cache->path_cache_rw()) {
    if (mark(*record, by)) scratch.push_back(*record);
  }
  enqueue(scratch);
  const size_t count = scratch.size();
  scratch.clear();
  return count;
}

size_t fs_storage::queued() const {
  std::lock_guard<std::mutex> lock(_queue_mutex);
  return _delete_queue.size();
}

void fs_storage::delete_thread() {
  while (_running) {
    try {
      std::string path;
      {
        std::unique_lock<std::mutex> lock(_queue_mutex);
        while (_delete_queue.empty()) {
          _queue_cv.wait_for(lock, STOP_CHECK_PERIOD);
          if (!_running) return;
        }
        path = _delete_queue.front().path;
        _delete_queue.pop_front();
      }
      if (_log != nullptr) _log->info("Deleting capture file: %s...", path);
      try {
        cdl::sys_remove_path(path, true);
        if (_log != nullptr) _log->debug("Deleting capture file: %s done.", path);
      } catch (const std::exception& e) {
        if (_log != nullptr) _log->error("Failed to delete capture file: %s: %s", path, e.what());
      }
    } catch (const std::exception& e) {
      if (_log != nullptr) _log->error("Failure on fs_storage delete thread: %s", e.what());
      ::sleep(1);
    }
  }
}

}  // namespace csl
