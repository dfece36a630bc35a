#!/usr/bin/env bash
# The Debian package: builds it from the build tree with cpack, unpacks it
# into a scratch root (dpkg -x), checks what it holds, runs the packaged
# command from there and has systemd-analyze verify the packaged unit.
#   run.sh BUILD_DIR
set -euo pipefail
build="$1"
for tool in cpack dpkg-deb dpkg-shlibdeps systemd-analyze; do
  command -v "$tool" >/dev/null || { echo "SKIP: $tool is not installed (scripts/install-deps.sh)"; exit 77; }
done
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$scratch/out" >"$scratch/cpack.log" 2>&1 ||
  { cat "$scratch/cpack.log"; fail "cpack"; }
deb=$(ls "$scratch"/out/faitra_*.deb)
dpkg-deb -x "$deb" "$scratch/root"
dpkg-deb -e "$deb" "$scratch/control"

for path in usr/bin/faitra usr/include/csl/fs_cache.hpp usr/include/faitra/host/daemon.hpp \
            lib/systemd/system/faitra.service etc/faitra/faitra.toml \
            usr/share/man/man1/faitra.1 usr/share/man/man1/faitra-serve.1; do
  ls "$scratch/root/$path"* >/dev/null 2>&1 || fail "the package lacks /$path"
done
ls "$scratch"/root/usr/lib*/libfaitra.so.* "$scratch"/root/usr/lib*/libfaitra_host.so.* >/dev/null ||
  fail "the package lacks the shared libraries"
grep -q '^/etc/faitra/faitra.toml$' "$scratch/control/conffiles" || fail "/etc/faitra/faitra.toml is not a conffile"
grep -q 'useradd --system' "$scratch/control/postinst" || fail "postinst creates no system user"
grep -q 'systemctl enable' "$scratch/control/postinst" && fail "postinst enables the service"
grep -q '^Depends:.*libc6' "$scratch/control/control" || fail "no shared-library dependencies in control"

# The packaged command runs from the scratch root.
libs=$(dirname "$(ls "$scratch"/root/usr/lib*/libfaitra.so.* | head -1)")
version=$(LD_LIBRARY_PATH="$libs" "$scratch/root/usr/bin/faitra" --version 2>&1) ||
  version=$(LD_LIBRARY_PATH="$libs" "$scratch/root/usr/bin/faitra" --help 2>&1) || fail "faitra does not run"
echo "packaged faitra: $(echo "$version" | head -1)"
# The packaged configuration is valid (its capture directory replaced by one
# that exists here: the command line wins).
LD_LIBRARY_PATH="$libs" "$scratch/root/usr/bin/faitra" serve --config "$scratch/root/etc/faitra/faitra.toml" \
  --root "$scratch" --check-config >"$scratch/config.log" 2>&1 || { cat "$scratch/config.log"; fail "--check-config"; }

# The unit, with its command pointed at the unpacked binary (verify checks
# that it exists); everything else as packaged.
mkdir "$scratch/unit"
sed "s|/usr/bin/faitra|$scratch/root/usr/bin/faitra|" "$scratch/root/lib/systemd/system/faitra.service" \
  >"$scratch/unit/faitra.service"
systemd-analyze verify "$scratch/unit/faitra.service" 2>"$scratch/verify.log" ||
  { cat "$scratch/verify.log"; fail "systemd-analyze verify"; }
if grep -v -e '^$' "$scratch/verify.log" | grep -qi faitra; then cat "$scratch/verify.log"; fail "unit warnings"; fi
echo "package OK: $(basename "$deb"), $(dpkg-deb -c "$deb" | wc -l) entries"
