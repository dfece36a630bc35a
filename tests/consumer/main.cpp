// Uses the installed libraries the way a host does: the umbrella header, the
// catalogue, the runtime's exception family and the host library. Exits 0
// only if all behave.
#include <csl/faitra.hpp>
#include <faitra/host/daemon_address.hpp>

#include <cstdio>
#include <memory>
#include <vector>

int main() {
  csl::fs_cache cache;
  auto entry = std::make_shared<csl::fs_entry>("/captures/a.pcap");
  entry->start_ts = 10UL;
  csl::fs_entry found;
  std::vector<csl::fs_entry> in_range;
  if (!cache.insert(std::move(entry)) || !cache.by_path(found, "/captures/a.pcap")) return 1;
  if (!cache.by_time(in_range, 10, 10)) return 1;
  faitra_host::listen_address address;
  std::string error;
  if (!faitra_host::parse_listen_address("[::1]:8470", address, error) || address.port != 8470) return 1;
  try {
    cache.insert(nullptr);
    return 2;
  } catch (const cdl::exception& e) {
    std::printf("%s; refused: %s\n", found.to_str().c_str(), e.what());
  }
  return 0;
}
