#!/usr/bin/env bash
# Compiles the Windows half with Debian's MinGW-w64 cross compiler, so that it stays code a
# compiler has read: the platform layer and the zeroconf library with its Windows paths (the
# DNS-SD API declared by zeroconf/windows/dns_sd.h). Fails when one of them stops compiling.
# Files that need Qt (src/theme/windows/) stay out: Debian has no Qt for this compiler.
#   tools/cross-windows.sh    (needs g++-mingw-w64-x86-64-posix)
set -euo pipefail
cd "$(dirname "$0")/.."
cxx=${VELMOR_WINDOWS_CXX:-x86_64-w64-mingw32-g++-posix}
# Every source of the zeroconf library, so that a new one is checked too.
sources=(src/platform/windows/*.cpp src/platform/PlatformCommon.cpp zeroconf/src/*.cpp)

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
# Boost's headers serve every target; nothing is linked, so the host's copy will do.
mkdir "$out/include"
ln -s /usr/include/boost "$out/include/boost"
version=$(sed -n 's/^project(VELMOR VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
IFS=. read -r major minor patch tweak <<<"$version"
sed -e "s/@PROJECT_VERSION_MAJOR@/$major/" -e "s/@PROJECT_VERSION_MINOR@/$minor/" \
  -e "s/@PROJECT_VERSION_PATCH@/$patch/" -e "s/@PROJECT_VERSION_TWEAK@/$tweak/" \
  src/platform/velmor_version.h.in >"$out/include/velmor_version.h"

# WIN32_LEAN_AND_MEAN as Windows builds use it: the full windows.h defines "interface".
# No -Wformat: this compiler checks formats against the old msvcrt, which lacks %zu.
flags=(-std=c++17 -Wall -Wextra -Wno-format -O0 -DWIN32_LEAN_AND_MEAN -DUNICODE -D_UNICODE
  -Isrc -Izeroconf/windows -Izeroconf/src -Izeroconf/src/include -isystem "$out/include")
echo "not compiled: src/theme/windows/ (needs Qt, which Debian has not for this compiler)"
failed=0
for source in "${sources[@]}"; do
  if "$cxx" "${flags[@]}" -c "$source" -o "$out/$(basename "$source").o"; then
    echo "compiles for Windows: $source"
  else
    echo "does not compile for Windows: $source" >&2
    failed=1
  fi
done
exit "$failed"
