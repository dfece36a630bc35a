#!/usr/bin/env bash
# Installs the Debian packages that building and testing faitra needs.
# Safe to run again; skips apt entirely when everything is present.
#
#   scripts/install-deps.sh          build and test
#   scripts/install-deps.sh --bench  also what `make bench` needs (plots, profiler)
set -euo pipefail

packages=(
  cmake ninja-build g++ make pkg-config
  rapidjson-dev libabsl-dev libgtest-dev libgmock-dev libbenchmark-dev
  libcpp-httplib-dev libcli11-dev libpq-dev postgresql
  libxxhash-dev liblz4-dev libpcap-dev
  attr curl python3 tcpdump lz4 xxhash
  chromium help2man dpkg-dev systemd libtomlplusplus-dev
)
case "${1:-}" in
  --bench) packages+=(gnuplot-nox linux-perf) ;;
  "") ;;
  *) echo "unknown argument: $1" >&2; exit 2 ;;
esac

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
echo "installing: ${missing[*]}"
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
