// Uses the installed library the way a host does: one umbrella header, the
// catalogue, the exception family from the runtime, and the host library. Exits 0 only when
// everything behaves.
#include <csl/faitra.hpp>
#include <faitra/host/daemon_address.hpp>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

int main() {
  csl::fs_cache cache;
  auto entry = std::make_shared<csl::fs_entry>("/captures/a.pcap");
  entry->key = std::string("ab12");
  entry->start_ts = 10UL;
  entry->file_size = 24;
  if (!cache.insert(std::move(entry))) return 1;

  csl::fs_entry found;
  if (!cache.by_path(found, "/captures/a.pcap") || found.file_size != 24) return 2;
  std::vector<csl::fs_entry> in_range;
  if (!cache.by_time(in_range, 10, 10) || in_range.size() != 1) return 3;

  try {
    cache.insert(nullptr);
    return 4;
  } catch (const cdl::exception& e) {
    if (std::string(e.what()) != "entry is null") return 5;
  }
  faitra_host::listen_address address;
  std::string error;
  if (!faitra_host::parse_listen_address("[::1]:8470", address, error) || address.port != 8470) return 6;
  std::printf("%s\n", found.to_str().c_str());
  return 0;
}
