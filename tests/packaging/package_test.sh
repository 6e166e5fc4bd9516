#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages with CPack and checks their contents, their declared
# runtime dependencies, lintian's verdict on every package and the systemd unit.
set -euo pipefail
build="$1"; src="$2"
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
for tool in lintian systemd-analyze; do
  command -v "$tool" >/dev/null || fail "$tool is missing (scripts/deps.sh installs it)"
done

(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; fail "cpack"; }
daemon=$(ls "$work"/mtd-main_*.deb 2>/dev/null | head -n1)
[ -n "$daemon" ] || fail "no mtd-main package"

contents=$(dpkg-deb -c "$daemon")
for f in ./usr/sbin/mtd_main ./usr/lib/systemd/system/mtd_main@.service ./usr/share/man/man8/mtd_main.8.gz \
         ./usr/libexec/mtd_main/mtd_main-line ./etc/mtd_main/line.conf.example \
         ./usr/share/mtd_main/templates/modbus-template.schema.json ./usr/share/mtd_main/templates/example-flow.json; do
  grep -q " $f\$" <<<"$contents" || fail "$f missing from $(basename "$daemon")"
done
grep -q "/usr/bin/\|mtd_hostsim\|mtd_metersim" <<<"$contents" && fail "simulators must not be in the daemon package"
grep -qx /etc/mtd_main/line.conf.example <<<"$(dpkg-deb -I "$daemon" conffiles)" || fail "the example is no conffile"

depends=$(dpkg-deb -f "$daemon" Depends)
for lib in libcurl libjsoncpp libmodbus; do
  grep -q "$lib" <<<"$depends" || fail "Depends lacks $lib: $depends"
done
dpkg-deb -I "$daemon" postinst >/dev/null || fail "no postinst"

tools=$(ls "$work"/mtd-main-tools_*.deb 2>/dev/null | head -n1)
[ -n "$tools" ] || fail "no mtd-main-tools package"
grep -q "mtd-main (=" <<<"$(dpkg-deb -f "$tools" Depends)" || fail "tools package must depend on the daemon"
for pkg in mtd-main mtd-main-tools; do
  ls "$work/$pkg"-dbgsym_*.ddeb >/dev/null 2>&1 || fail "no $pkg-dbgsym package"
done

# Every package, debug symbols included, without a single error or warning.
lintian --allow-root --fail-on error,warning "$work"/*.deb "$work"/*.ddeb >"$work/lintian.log" 2>&1 ||
  { cat "$work/lintian.log"; fail "lintian"; }
grep -E '^[EW]: ' "$work/lintian.log" && fail "lintian"

# The unit, pointed at the freshly built daemon and the line starter, must verify cleanly.
unit="$work/mtd_main@test.service"
sed -e "s|/usr/libexec/mtd_main/mtd_main-line|$src/packaging/mtd_main-line|" \
    -e '/^Documentation=/d' "$src/packaging/mtd_main@.service" >"$unit"
out=$(systemd-analyze verify "$unit" 2>&1 || true)
[ -z "$out" ] || fail "systemd-analyze verify: $out"
# The examples of the tools package, the status tool pointed at the built one.
tools_contents=$(dpkg-deb -c "$tools")
for example in mtd_status-prometheus.service mtd_status-prometheus.timer; do
  grep -q "/usr/share/doc/mtd-main-tools/examples/$example\$" <<<"$tools_contents" || fail "$example not in the tools package"
  sed -e "s|/usr/bin/mtd_status|$build/mtd_status|" -e '/^Documentation=/d' "$src/packaging/$example" >"$work/$example"
done
out=$(cd "$work" && systemd-analyze verify mtd_status-prometheus.timer mtd_status-prometheus.service 2>&1 || true)
[ -z "$out" ] || fail "systemd-analyze verify of the examples: $out"
echo "package test passed: $(cd "$work" && echo *.deb *.ddeb)"
