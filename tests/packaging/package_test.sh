#!/usr/bin/env bash
# Builds the Debian packages with CPack and checks their contents, their declared
# runtime dependencies and the systemd unit.
set -euo pipefail
build="$1"; src="$2"
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; fail "cpack"; }
daemon=$(ls "$work"/mtd-main_*.deb 2>/dev/null | head -n1)
[ -n "$daemon" ] || fail "no mtd-main package"

contents=$(dpkg-deb -c "$daemon")
for f in ./usr/sbin/mtd_main ./usr/lib/systemd/system/mtd_main@.service ./usr/share/man/man8/mtd_main.8; do
  grep -q " $f\$" <<<"$contents" || fail "$f missing from $(basename "$daemon")"
done
grep -q "/usr/bin/\|mtd_hostsim\|mtd_metersim" <<<"$contents" && fail "simulators must not be in the daemon package"

depends=$(dpkg-deb -f "$daemon" Depends)
for lib in libcurl libjsoncpp libmodbus; do
  grep -q "$lib" <<<"$depends" || fail "Depends lacks $lib: $depends"
done
grep -q postinst <<<"$(dpkg-deb -I "$daemon")" || fail "no postinst"  # no pipe: grep -q would cut it short (SIGPIPE under pipefail)

tools=$(ls "$work"/mtd-main-tools_*.deb 2>/dev/null | head -n1)
if [ -n "$tools" ]; then
  dpkg-deb -f "$tools" Depends | grep -q "mtd-main (=" || fail "tools package must depend on the daemon"
fi

# The unit, pointed at the freshly built binary, must verify cleanly.
if command -v systemd-analyze >/dev/null; then
  unit="$work/mtd_main@test.service"
  sed -e "s|/usr/sbin/mtd_main|$build/mtd_main|" -e '/^Documentation=/d' "$src/packaging/mtd_main@.service" >"$unit"
  out=$(systemd-analyze verify "$unit" 2>&1 || true)
  [ -z "$out" ] || fail "systemd-analyze verify: $out"
else
  echo "systemd-analyze not available: unit not verified"
fi
echo "package test passed: $(basename "$daemon") ${tools:+$(basename "$tools")}"
