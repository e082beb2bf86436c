#!/usr/bin/env bash
# Installs what is missing, builds, then runs the agent or the tests.
#   tools/setup.sh run        build and start the agent (extra arguments go to VELMOR)
#   tools/setup.sh test       build and run every test (unit, gui, network)
#   tools/setup.sh sanitize   build with AddressSanitizer + UBSan and run the unit tests
#   tools/setup.sh tsan       build with ThreadSanitizer and run the zeroconf, Agent and JSON unit tests
#   tools/setup.sh bench      build and print the benchmark figures
#   tools/setup.sh package    build the Debian package (build-package/velmor_<version>_amd64.deb)
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-test}
shift || true

build_packages=(build-essential cmake ninja-build pkg-config qtbase5-dev
  libboost-system-dev libboost-thread-dev libboost-filesystem-dev rapidjson-dev
  libcurl4-openssl-dev libavahi-compat-libdnssd-dev libgtest-dev libgmock-dev
  fonts-crosextra-carlito)
test_packages=(avahi-daemon avahi-utils dbus iproute2 xvfb x11-utils trayer imagemagick xdotool wrk clang clang-format
  libclang-rt-14-dev procps psmisc curl chromium fonts-dejavu-core lintian g++-mingw-w64-x86-64-posix
  systemd fonts-crosextra-carlito)

install_missing() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  # The tests run avahi-daemon only inside their own network namespaces: the package must not
  # start one on this machine's network, neither now nor at the next boot.
  local policy=/usr/sbin/policy-rc.d added_policy=""
  if [ ! -e "$policy" ]; then
    printf '#!/bin/sh\nexit 101\n' | $sudo tee "$policy" >/dev/null
    $sudo chmod 755 "$policy"
    added_policy=1
  fi
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" ||
    { [ -n "$added_policy" ] && $sudo rm -f "$policy"; return 1; }
  [ -n "$added_policy" ] && $sudo rm -f "$policy"
  if [[ " ${missing[*]} " == *" avahi-daemon "* ]] && [ -d /run/systemd/system ]; then
    $sudo systemctl disable --now avahi-daemon.socket avahi-daemon.service >/dev/null 2>&1 || true
  fi
  return 0
}

configure_build() {
  local dir=$1
  shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir"
}

case "$mode" in
  run)
    install_missing "${build_packages[@]}"
    configure_build build -DVELMOR_TESTS=OFF
    exec build/VELMOR "$@"
    ;;
  test)
    install_missing "${build_packages[@]}" "${test_packages[@]}"
    configure_build build -DVELMOR_WERROR=ON
    cd build && ctest --output-on-failure -j2 --timeout 600 "$@"
    ;;
  sanitize)
    install_missing "${build_packages[@]}" "${test_packages[@]}"
    configure_build build-asan -DVELMOR_SANITIZE=ON -DVELMOR_WERROR=ON -DCMAKE_BUILD_TYPE=Debug
    cd build-asan && ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
      ctest --output-on-failure -j2 -L unit --timeout 600 "$@"
    ;;
  tsan)
    install_missing "${build_packages[@]}" "${test_packages[@]}"
    cmake -S . -B build-tsan -G Ninja -DVELMOR_TSAN=ON -DVELMOR_WERROR=ON -DCMAKE_BUILD_TYPE=Debug >/dev/null
    # Only what those tests need; each folder's ctest then runs whatever tests it holds.
    cmake --build build-tsan --target tests/zeroconf/all tests/Agent/all tests/json/all
    for dir in tests/zeroconf tests/Agent tests/json; do
      (cd "build-tsan/$dir" && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
        ctest --output-on-failure -j2 -L unit --timeout 600 "$@")
    done
    ;;
  bench)
    install_missing "${build_packages[@]}" "${test_packages[@]}"
    configure_build build -DCMAKE_BUILD_TYPE=Release
    for b in build/bench_* bench/*.sh; do
      if [ -f "$b" ] && [ -x "$b" ]; then "$b"; fi
    done
    ;;
  package)
    install_missing "${build_packages[@]}"
    # Debian's hardening flags; the file dates come from the commit, and the executable is
    # linked with its installed run path (not the build folder's, rewritten later and leaving
    # its length behind), so that two packages built from the same commit are the same bytes.
    export DEB_BUILD_MAINT_OPTIONS=hardening=+all
    export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || date +%s)}
    configure_build build-package -DVELMOR_TESTS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_BUILD_WITH_INSTALL_RPATH=ON \
      "-DCMAKE_C_FLAGS=$(dpkg-buildflags --get CFLAGS) $(dpkg-buildflags --get CPPFLAGS)" \
      "-DCMAKE_CXX_FLAGS=$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)" \
      "-DCMAKE_EXE_LINKER_FLAGS=$(dpkg-buildflags --get LDFLAGS)" \
      "-DCMAKE_SHARED_LINKER_FLAGS=$(dpkg-buildflags --get LDFLAGS)" "$@"
    cd build-package && rm -f velmor_*.deb && cpack -G DEB >/dev/null && ls "$PWD"/velmor_*.deb
    ;;
  *)
    echo "usage: $0 run|test|sanitize|tsan|bench|package" >&2
    exit 2
    ;;
esac
