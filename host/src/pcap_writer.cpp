#include <faitra/host/pcap_writer.hpp>

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

namespace faitra_host {

void fnv1a64::update(const void* data, size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  uint64_t hash = _hash;
  for (size_t i = 0; i < size; ++i) {
    hash ^= bytes[i];
    hash *= 0x100000001b3ULL;
  }
  _hash = hash;
}

std::string fnv1a64::hex() const {
  static const char digits[] = "0123456789abcdef";
  std::string out(16, '0');
  for (int i = 15, shift = 0; i >= 0; --i, shift += 4) out[i] = digits[(_hash >> shift) & 0xf];
  return out;
}

namespace {

constexpr size_t WRITE_BUFFER_SIZE = 1 << 20;
constexpr uint64_t NS_PER_SECOND = 1000000000ULL;

[[noreturn]] void fail(int error, const std::string& what) { throw std::system_error(error, std::generic_category(), what); }

// xorshift64*: cheap, good enough for payload bytes and frame sizes.
class random_bits {
 public:
  explicit random_bits(uint64_t seed) : _state(seed * 0x9e3779b97f4a7c15ULL + 1) {}
  uint64_t next() {
    _state ^= _state >> 12;
    _state ^= _state << 25;
    _state ^= _state >> 27;
    return _state * 0x2545f4914f6cdd1dULL;
  }

 private:
  uint64_t _state;
};

// Frame sizes that fill `size` bytes exactly after the global header. Keeps
// the remainder either 0 or at least one minimal record, so the last frame
// always fits.
std::vector<uint16_t> plan_frames(unsigned long size, random_bits& random) {
  constexpr unsigned long MIN_RECORD = PCAP_RECORD_HEADER_SIZE + MIN_FRAME_SIZE;
  std::vector<uint16_t> frames;
  frames.reserve(size / 800 + 1);
  unsigned long remaining = size - PCAP_GLOBAL_HEADER_SIZE;
  while (remaining > 0) {
    unsigned long frame = MIN_FRAME_SIZE + random.next() % (MAX_FRAME_SIZE - MIN_FRAME_SIZE + 1);
    if (remaining - PCAP_RECORD_HEADER_SIZE <= MAX_FRAME_SIZE) {
      frame = remaining - PCAP_RECORD_HEADER_SIZE;
    } else if (remaining - PCAP_RECORD_HEADER_SIZE - frame < MIN_RECORD) {
      frame = remaining - PCAP_RECORD_HEADER_SIZE - MIN_RECORD;
    }
    frames.push_back(static_cast<uint16_t>(frame));
    remaining -= PCAP_RECORD_HEADER_SIZE + frame;
  }
  return frames;
}

void put16(std::vector<unsigned char>& out, uint16_t v) {  // network order
  out.push_back(static_cast<unsigned char>(v >> 8));
  out.push_back(static_cast<unsigned char>(v & 0xff));
}

template <typename T>
void put_host(std::vector<unsigned char>& out, T v) {
  unsigned char bytes[sizeof(T)];
  std::memcpy(bytes, &v, sizeof(T));
  out.insert(out.end(), bytes, bytes + sizeof(T));
}

uint16_t ipv4_checksum(const unsigned char* header) {
  uint32_t sum = 0;
  for (int i = 0; i < 20; i += 2) sum += static_cast<uint32_t>(header[i] << 8 | header[i + 1]);
  while ((sum >> 16) != 0) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

void append_frame(std::vector<unsigned char>& out, unsigned long frame, uint32_t sequence, random_bits& random) {
  static const unsigned char ETHERNET[14] = {0x02, 0, 0, 0, 0, 0x02, 0x02, 0, 0, 0, 0, 0x01, 0x08, 0x00};
  out.insert(out.end(), ETHERNET, ETHERNET + sizeof(ETHERNET));
  const size_t ip = out.size();
  out.push_back(0x45);  // IPv4, 20-byte header
  out.push_back(0);
  put16(out, static_cast<uint16_t>(frame - 14));
  put16(out, static_cast<uint16_t>(sequence));
  put16(out, 0x4000);  // don't fragment
  out.push_back(64);   // TTL
  out.push_back(17);   // UDP
  put16(out, 0);       // checksum, below
  const unsigned char addresses[8] = {10, 0, 0, 1, 10, 0, 0, 2};
  out.insert(out.end(), addresses, addresses + sizeof(addresses));
  const uint16_t checksum = ipv4_checksum(out.data() + ip);
  out[ip + 10] = static_cast<unsigned char>(checksum >> 8);
  out[ip + 11] = static_cast<unsigned char>(checksum & 0xff);
  put16(out, static_cast<uint16_t>(40000 + sequence % 1000));  // source port
  put16(out, 5000);                                              // destination port
  put16(out, static_cast<uint16_t>(frame - 34));
  put16(out, 0);  // no UDP checksum
  unsigned long payload = frame - 42;
  while (payload > 0) {
    const uint64_t bits = random.next();
    unsigned char bytes[sizeof(bits)];
    std::memcpy(bytes, &bits, sizeof(bits));
    const unsigned long n = payload < sizeof(bits) ? payload : sizeof(bits);
    out.insert(out.end(), bytes, bytes + n);
    payload -= n;
  }
}

void write_all(int fd, const std::vector<unsigned char>& data, const std::string& path) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      fail(errno, "write " + path);
    }
    done += static_cast<size_t>(n);
  }
}

void close_checked(int fd, const std::string& path) {
  if (::close(fd) != 0 && errno != EINTR) fail(errno, "close " + path);
}

void set_attribute(int fd, const std::string& path, const char* name, const std::string& value) {
  if (::fsetxattr(fd, name, value.data(), value.size(), 0) != 0) fail(errno, std::string("set ") + name + " on " + path);
}

// Writes the capture into `fd` and returns what the attributes must say.
capture_written write_capture(int fd, const std::string& path, const capture_plan& plan) {
  random_bits random(plan.first_ns);
  const std::vector<uint16_t> frames = plan_frames(plan.size, random);
  uint64_t spacing = plan.span_ns / frames.size();
  if (spacing == 0) spacing = 1;

  capture_written result;
  result.path = path;
  result.packets = frames.size();
  result.first_ns = plan.first_ns;
  result.last_ns = plan.first_ns + (frames.size() - 1) * spacing;

  fnv1a64 hash;
  std::vector<unsigned char> buffer;
  buffer.reserve(WRITE_BUFFER_SIZE + PCAP_RECORD_HEADER_SIZE + MAX_FRAME_SIZE);
  put_host<uint32_t>(buffer, PCAP_MAGIC_NANOSECONDS);
  put_host<uint16_t>(buffer, 2);
  put_host<uint16_t>(buffer, 4);
  put_host<int32_t>(buffer, 0);  // GMT offset
  put_host<uint32_t>(buffer, 0);  // timestamp accuracy
  put_host<uint32_t>(buffer, PCAP_SNAPLEN);
  put_host<uint32_t>(buffer, PCAP_LINKTYPE_ETHERNET);

  for (size_t i = 0; i < frames.size(); ++i) {
    const uint64_t ts = plan.first_ns + i * spacing;
    put_host<uint32_t>(buffer, static_cast<uint32_t>(ts / NS_PER_SECOND));
    put_host<uint32_t>(buffer, static_cast<uint32_t>(ts % NS_PER_SECOND));
    put_host<uint32_t>(buffer, frames[i]);
    put_host<uint32_t>(buffer, frames[i]);
    append_frame(buffer, frames[i], static_cast<uint32_t>(i), random);
    if (buffer.size() >= WRITE_BUFFER_SIZE) {
      hash.update(buffer.data(), buffer.size());
      write_all(fd, buffer, path);
      result.bytes += buffer.size();
      buffer.clear();
    }
  }
  hash.update(buffer.data(), buffer.size());
  write_all(fd, buffer, path);
  result.bytes += buffer.size();
  result.hash = hash.hex();
  return result;
}

}  // namespace

capture_written write_capture_file(const std::string& path, const capture_plan& plan) {
  if (plan.size < MIN_CAPTURE_SIZE) fail(EINVAL, "capture size below " + std::to_string(MIN_CAPTURE_SIZE) + " bytes");
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) fail(errno, "create " + path);
  int open_fd = fd;
  try {
    capture_written result = write_capture(fd, path, plan);
    open_fd = -1;
    close_checked(fd, path);

    const int again = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (again < 0) fail(errno, "reopen " + path);
    open_fd = again;
    set_attribute(again, path, "user.pcap_hash", result.hash);
    set_attribute(again, path, "user.pcap_start_ts", std::to_string(result.first_ns));
    set_attribute(again, path, "user.pcap_end_ts", std::to_string(result.last_ns));
    set_attribute(again, path, "user.pcap_creation_ts", std::to_string(result.first_ns / NS_PER_SECOND));
    open_fd = -1;
    close_checked(again, path);
    return result;
  } catch (...) {
    if (open_fd >= 0) ::close(open_fd);
    ::unlink(path.c_str());
    throw;
  }
}

}  // namespace faitra_host
