#!/usr/bin/env bash
# dev.sh - one entry point for building, demonstrating and testing libzel_common.
#
#   ./dev.sh demo    build, then write records through the logging wrapper
#                    into a fresh log directory and show the resulting file
#   ./dev.sh test    install what is missing, build and run the whole test suite
#   ./dev.sh bench   build the benchmarks (with peer libraries) and print a
#                    table of records/s and ratios to log_printf
#
# Each command installs missing Debian packages with apt-get (run as root or
# with sudo available), configures through a CMake preset and builds; running
# it again only rebuilds what changed.
set -euo pipefail
cd "$(dirname "$0")"

JOBS=${JOBS:-$(nproc)}
BASE_PACKAGES=(cmake ninja-build g++ pkg-config libpoco-dev libgtest-dev libgmock-dev valgrind)

log() { printf '== %s\n' "$*" >&2; }

# Installs the named Debian packages that are not installed yet.
ensure_packages() {
  local missing=()
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  log "installing ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get install -y --no-install-recommends "${missing[@]}" \
    || { $sudo apt-get update && $sudo apt-get install -y --no-install-recommends "${missing[@]}"; }
}

# configure_and_build PRESET [targets...]
configure_and_build() {
  local preset=$1
  shift
  cmake --preset "$preset" >/dev/null
  cmake --build "build/$preset" -j "$JOBS" ${1:+--target "$@"}
}

cmd_demo() {
  ensure_packages "${BASE_PACKAGES[@]}"
  configure_and_build dev example_logging
  local dir
  dir=$(mktemp -d "${TMPDIR:-/tmp}/zel-demo.XXXXXX")
  log "writing records into $dir"
  TMPDIR="$dir" ZEL_LOGGING_FMAXSIZE=2048 ZEL_LOGGING_FMAXCOUNT=3 ./build/dev/examples/example_logging
  log "files in $dir:"
  ls -l "$dir"
  log "$dir/zel.log:"
  cat "$dir/zel.log"
}

cmd_test() {
  ensure_packages "${BASE_PACKAGES[@]}"
  configure_and_build dev
  ctest --test-dir build/dev --output-on-failure -j "$JOBS"
}

cmd_bench() {
  ensure_packages "${BASE_PACKAGES[@]}" libbenchmark-dev libspdlog-dev libgoogle-glog-dev python3
  configure_and_build bench zel_bench
  python3 bench/report.py build/bench/bench/zel_bench "${@}"
}

# ./dev.sh package-check: installs into a temporary prefix and builds and
# runs a consumer through the CMake package and through pkg-config, checks
# the exported symbols, makes and checks the Debian packages
# (build/package-check/*.deb) and builds the API documentation
# (build/package-check/docs/html). See tests/consumer/check.sh.
cmd_package_check() {
  ensure_packages "${BASE_PACKAGES[@]}" dpkg-dev file doxygen
  JOBS=$JOBS bash tests/consumer/check.sh "$PWD/build/package-check"
}

case "${1:-}" in
  demo) cmd_demo ;;
  test) cmd_test ;;
  bench) shift; cmd_bench "$@" ;;
  package-check) cmd_package_check ;;
  *)
    sed -n '2,14p' "$0" | sed 's/^# \{0,1\}//'
    exit 2
    ;;
esac
