#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# dpkg-shlibdeps for a controller build, called by CPack in its place: the target's
# libraries are looked up in the sysroot (MTD_CROSS_SYSROOT, MTD_CROSS_TRIPLET) and
# their packages' shlibs entries come from the file scripts/sysroot.sh kept there.
set -euo pipefail
root="${MTD_CROSS_SYSROOT:?}"
exec dpkg-shlibdeps -L"$root/.mtd-shlibs.local" \
  -l"$root/lib/${MTD_CROSS_TRIPLET:?}" -l"$root/usr/lib/$MTD_CROSS_TRIPLET" "$@"
