#!/usr/bin/env bash
# dev.sh - one entry point for building, demonstrating and testing libzel_common.
#
#   ./dev.sh demo    build, then write records through the logging wrapper
#                    into a fresh log directory and show the resulting file
#   ./dev.sh test    install what is missing, build and run the whole test suite
#   ./dev.sh bench   build the benchmarks (with peer libraries) and print a
#                    table of records/s and ratios to log_printf
#   ./dev.sh package-check   install the `install` preset into a temp prefix,
#                    build consumers and the examples against it, check the ABI
#                    against the symbols file, build the Debian packages with
#                    dpkg-buildpackage, lintian them, check the API documentation
#   ./dev.sh sanitize        ASan+UBSan over the whole suite, TSan over the
#                    threaded tests
#   ./dev.sh fuzz [SECONDS]  run every libFuzzer target (default 60 s each)
#   ./dev.sh torture [SECONDS] [SEED]  seeded torture run of the shared log
#                    file (default 60 s, a new seed, printed)
#   ./dev.sh torture-ci      the CI's torture runs: fixed seeds and one new
#                    seed, about three minutes in all
#
# Each command installs missing Debian packages with apt-get (run as root or
# with sudo available), then configures, builds and tests through the CMake
# presets of CMakePresets.json (configure, build and test presets of the same
# name); running it again only rebuilds what changed.
set -euo pipefail
cd "$(dirname "$0")"

JOBS=${JOBS:-$(nproc)}
BASE_PACKAGES=(cmake ninja-build g++ pkg-config libpoco-dev libgtest-dev libgmock-dev valgrind)
# rsyslog and its RELP input: the tests of `zel log ship` run a private
# rsyslogd (its own configuration, work directory and port) to ship to.
TEST_PACKAGES=(rsyslog rsyslog-relp)

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
  cmake --build --preset "$preset" -j "$JOBS" ${1:+--target "$@"}
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
  ensure_packages "${BASE_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
  configure_and_build dev
  ctest --preset dev -j "$JOBS"
}

cmd_bench() {
  ensure_packages "${BASE_PACKAGES[@]}" libbenchmark-dev libspdlog-dev libgoogle-glog-dev python3
  configure_and_build bench zel_bench
  python3 bench/report.py build/bench/bench/zel_bench "${@}"
}

# ./dev.sh package-check: installs the `install` preset into a temporary
# prefix and builds and runs consumers through the CMake package and through
# pkg-config and the examples copied out of the tree, checks the exported
# symbols and the ABI (debian/libzel-common1.symbols), builds the source and
# binary Debian packages with dpkg-buildpackage (copied to
# build/package-check/), runs lintian -I --pedantic on them and checks the
# API documentation (identical HTML from two build directories). Prints the
# time of each step. See tests/consumer/check.sh.
cmd_package_check() {
  ensure_packages "${BASE_PACKAGES[@]}" dpkg-dev debhelper file doxygen lintian abigail-tools
  JOBS=$JOBS bash tests/consumer/check.sh "$PWD/build/package-check"
}

# ./dev.sh sanitize: builds the asan (AddressSanitizer + UndefinedBehavior-
# Sanitizer) and tsan (ThreadSanitizer) presets and runs the whole test suite
# under each; any sanitizer report fails the test that caused it. The test
# presets carry the sanitizer options (ASAN_OPTIONS, UBSAN_OPTIONS,
# TSAN_OPTIONS), so `ctest --preset asan` alone runs the same. The tsan test
# preset leaves out only the lock tests that misuse an error-checking
# mutex on purpose (unlocking it from a foreign thread or while it is free, to
# check the errors the lock reports): TSan reports such an unlock as "unlock
# of an unlocked mutex" however the mutex answers it.
cmd_sanitize() {
  ensure_packages "${BASE_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
  configure_and_build asan
  log "AddressSanitizer + UndefinedBehaviorSanitizer: the whole suite"
  ctest --preset asan -j "$JOBS"
  configure_and_build tsan
  log "ThreadSanitizer: the whole suite but the deliberate mutex misuse"
  # setarch -R: TSan's shadow memory needs the address layout that
  # randomisation of large mmap regions can break on newer kernels.
  setarch "$(uname -m)" -R ctest --preset tsan -j "$JOBS"
}

# ./dev.sh fuzz [SECONDS]: builds the libFuzzer targets (fuzz preset, clang)
# and runs each for SECONDS (default 60) on a scratch corpus seeded from
# fuzz/corpus/<area>/. A crash, leak, sanitizer report, failed check or input
# slower than 10 s stops that target; its input is kept in
# build/fuzz/artifacts/ and the command fails.
#
# fuzz_options AREA: the target's own libFuzzer options. The configuration
# reader gets inputs of up to 64 KiB, room to grow its seeds of deep nesting
# (past the 1000-level limit) and of thousands of equal elements; the tool
# gets 16 KiB of arguments and standard input (lines past the 799-character
# record) and runs with its standard output and error closed (libFuzzer
# still reports through a copy of standard error), as the wrapper it drives
# complains there on purpose.
fuzz_options() {
  case "$1" in
    configuration) echo "-max_len=65536" ;;
    zel_tool) echo "-max_len=16384 -close_fd_mask=3" ;;
  esac
}

cmd_fuzz() {
  local seconds=${1:-60}
  ensure_packages "${BASE_PACKAGES[@]}" clang libclang-rt-14-dev llvm
  configure_and_build fuzz zel_fuzz
  local artifacts=build/fuzz/artifacts work=build/fuzz/work passed=0 failed=0
  mkdir -p "$artifacts" "$work/tmp"
  # Scratch files of the targets (the tool's log directory) stay in the build
  # tree, even when a target dies before it can remove them.
  export TMPDIR=$PWD/$work/tmp
  for target in build/fuzz/fuzz/fuzz_*; do
    local name area runs
    name=$(basename "$target")
    area=${name#fuzz_}
    mkdir -p "$work/$area"
    log "$name for ${seconds}s"
    # shellcheck disable=SC2046 # the options are meant to split
    if "$target" $(fuzz_options "$area") -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$artifacts/$area-" "$work/$area" "fuzz/corpus/$area" >"$work/$area.log" 2>&1; then
      runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$area.log")
      printf '%s: %s executions, no failure\n' "$name" "${runs:-?}"
      passed=$((passed + 1))
    else
      tail -n 40 "$work/$area.log"
      printf '%s: FAILED (input in %s)\n' "$name" "$artifacts"
      failed=$((failed + 1))
    fi
  done
  printf 'fuzz: %d passed, %d failed\n' "$passed" "$failed"
  [ "$failed" -eq 0 ]
}

# ./dev.sh torture [SECONDS] [SEED]: builds zel_torture (dev preset) and runs
# it once: writer processes with threads log into one directory while faults
# from the seed's schedule hit them (kills, forks, outside renames, a
# replaced directory, a held directory lock, a full disk as root); then
# every record is checked. A failure prints the seed and the broken
# invariant with record ids; `./dev.sh torture SECONDS SEED` replays it.
# More options (one fault alone, --keep): build/dev/tests/torture/zel_torture --help.
cmd_torture() {
  local seconds=${1:-60} seed=${2:-}
  ensure_packages "${BASE_PACKAGES[@]}" gdb
  configure_and_build dev zel_torture
  ./build/dev/tests/torture/zel_torture --seconds "$seconds" ${seed:+--seed "$seed"}
}

# ./dev.sh torture-ci: the torture runs of CI, about three minutes: three
# fixed seeds of 35 s, then one of 45 s with a new seed (printed, so that a
# failure can be replayed). All run even when one fails; the command fails
# if any did.
TORTURE_CI_SEEDS=(1 2 3)
cmd_torture_ci() {
  ensure_packages "${BASE_PACKAGES[@]}" gdb
  configure_and_build dev zel_torture
  local failed=() seed
  for seed in "${TORTURE_CI_SEEDS[@]}"; do
    log "torture: seed $seed, 35 s"
    ./build/dev/tests/torture/zel_torture --seconds 35 --seed "$seed" || failed+=("$seed")
  done
  seed=$(od -An -N6 -tu8 /dev/urandom | tr -d ' ')
  log "torture: new seed $seed, 45 s"
  ./build/dev/tests/torture/zel_torture --seconds 45 --seed "$seed" || failed+=("$seed")
  if [ ${#failed[@]} -gt 0 ]; then
    printf 'torture: FAILED for seed(s) %s (replay: ./dev.sh torture SECONDS SEED)\n' "${failed[*]}"
    return 1
  fi
  printf 'torture: %d runs, every invariant held\n' $((${#TORTURE_CI_SEEDS[@]} + 1))
}

case "${1:-}" in
  demo) cmd_demo ;;
  test) cmd_test ;;
  bench) shift; cmd_bench "$@" ;;
  package-check) cmd_package_check ;;
  sanitize) cmd_sanitize ;;
  fuzz) shift; cmd_fuzz "$@" ;;
  torture) shift; cmd_torture "$@" ;;
  torture-ci) cmd_torture_ci ;;
  *)
    awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"
    exit 2
    ;;
esac
