/* The floor of a start-up scan: only the system calls a scan cannot avoid
 * (getdents64, then stat and four getxattr per file), keeping nothing.
 *
 *   scan_floor DIR
 *
 * Prints the number of files seen on standard error. Names ending in
 * ".pcap" count as captures, as in faitra's default filter. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

static const char* const ATTRIBUTES[] = {"user.pcap_hash", "user.pcap_start_ts", "user.pcap_end_ts",
                                         "user.pcap_creation_ts"};

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: scan_floor DIR\n");
    return 2;
  }
  const int fd = open(argv[1], O_RDONLY | O_DIRECTORY);
  if (fd < 0) {
    perror(argv[1]);
    return 1;
  }
  static char buffer[32768];
  char path[4096], value[256];
  const size_t dir_length = strlen(argv[1]);
  memcpy(path, argv[1], dir_length);
  path[dir_length] = '/';
  unsigned long files = 0;
  for (;;) {
    const long n = syscall(SYS_getdents64, fd, buffer, sizeof buffer);
    if (n < 0) {
      perror("getdents64");
      return 1;
    }
    if (n == 0) break;
    for (long offset = 0; offset < n;) {
      uint16_t record_length;
      memcpy(&record_length, buffer + offset + 16, sizeof record_length);
      const char* name = buffer + offset + 19;
      offset += record_length;
      const size_t name_length = strlen(name);
      if (name_length <= 5 || memcmp(name + name_length - 5, ".pcap", 5) != 0) continue;
      memcpy(path + dir_length + 1, name, name_length + 1);
      struct stat status;
      if (stat(path, &status) != 0) continue;
      for (int i = 0; i < 4; ++i) (void)getxattr(path, ATTRIBUTES[i], value, sizeof value);
      ++files;
    }
  }
  close(fd);
  fprintf(stderr, "%lu\n", files);
  return 0;
}
