/* Benchmark setup writer: creates N capture files with the four capture
 * attributes, as fast as the file system allows.
 *
 *   make_captures DIR N [SIZE]
 *
 * Files are named cap-<8 digits>.pcap (48-character paths are the memory
 * benchmark's concern, not this one's), hold SIZE bytes (default 512, above
 * the 236-byte "empty capture" limit) and carry user.pcap_hash (64 hex
 * characters), user.pcap_start_ts, user.pcap_end_ts and
 * user.pcap_creation_ts. Existing files of the same name are overwritten. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/xattr.h>
#include <unistd.h>

static int set(int fd, const char* name, const char* value) {
  if (fsetxattr(fd, name, value, strlen(value), 0) != 0) {
    fprintf(stderr, "make_captures: fsetxattr %s: %s\n", name, strerror(errno));
    return -1;
  }
  return 0;
}

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: make_captures DIR N [SIZE]\n");
    return 2;
  }
  const char* dir = argv[1];
  const long n = atol(argv[2]);
  const long size = argc > 3 ? atol(argv[3]) : 512;
  char* content = calloc(1, (size_t)size + 1);
  if (content == NULL) return 1;
  const unsigned long long base_ns = 1700000000000000000ULL;
  char path[4096], hash[65], start[32], end[32], creation[32];
  for (long i = 0; i < n; ++i) {
    snprintf(path, sizeof path, "%s/cap-%08ld.pcap", dir, i);
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
      fprintf(stderr, "make_captures: %s: %s\n", path, strerror(errno));
      return 1;
    }
    if (size > 0 && write(fd, content, (size_t)size) != size) {
      fprintf(stderr, "make_captures: write %s: %s\n", path, strerror(errno));
      return 1;
    }
    snprintf(hash, sizeof hash, "%016lx%016lx%016lx%016lx", i * 2654435761UL, (unsigned long)i, ~(unsigned long)i,
             i * 40503UL);
    const unsigned long long s = base_ns + (unsigned long long)i * 1000000000ULL;
    snprintf(start, sizeof start, "%llu", s);
    snprintf(end, sizeof end, "%llu", s + 999999999ULL);
    snprintf(creation, sizeof creation, "%llu", s / 1000000000ULL);
    if (set(fd, "user.pcap_hash", hash) || set(fd, "user.pcap_start_ts", start) ||
        set(fd, "user.pcap_end_ts", end) || set(fd, "user.pcap_creation_ts", creation)) {
      return 1;
    }
    close(fd);
  }
  free(content);
  return 0;
}
