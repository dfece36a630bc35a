#!/usr/bin/env python3
"""The start-up scan an operator would write instead of using faitra:
os.scandir, os.stat and os.getxattr, keeping one record per capture."""
import os
import sys

ATTRIBUTES = ("user.pcap_hash", "user.pcap_start_ts", "user.pcap_end_ts", "user.pcap_creation_ts")


def read(path, name):
    try:
        return os.getxattr(path, name)
    except OSError:
        return None


def main(directory):
    records = {}
    with os.scandir(directory) as entries:
        for entry in entries:
            if not entry.name.endswith(".pcap"):
                continue
            status = os.stat(entry.path)
            records[entry.path] = (status.st_size, status.st_mtime_ns) + tuple(read(entry.path, a) for a in ATTRIBUTES)
    print(len(records), file=sys.stderr)


if __name__ == "__main__":
    main(sys.argv[1])
