#!/usr/bin/env bash
# check.sh [BUILD_DIR] - checks libzel_common the way its users get it.
#
#   1. builds the `install` preset (library, tool, manual page; no tests) in
#      BUILD_DIR (default build/package-check), installs it into a temporary
#      prefix with `cmake --install --prefix` and checks the installed files
#      (nothing Debian-only in a non-Debian prefix);
#   2. checks <zel/Version.h> against the project's version and `zel
#      --version`, and the exported symbols: nothing internal, nothing outside
#      the Zel namespace, every public class, function and data item present;
#   3. ABI: the exported symbols against debian/libzel-common1.symbols
#      (dpkg-gensymbols, as for a later release of the same SONAME: a symbol
#      gone, changed or not yet recorded fails), and that the check does fail
#      on a symbols file with one symbol more or one less;
#   4. builds tests/consumer against the installation through the CMake
#      package and through pkg-config (with -Wall -Wextra -Werror), including
#      the record macros through <zel/LoggingWrapper.h> alone and the
#      transitional bare-name include path, and runs them; builds examples/
#      copied out of the tree; runs the installed tool; uninstalls;
#   5. the Debian packages: debian/changelog against CHANGELOG.md, then
#      `dpkg-buildpackage -us -uc` in a copy of the source tree (source
#      package, binaries, -dbgsym), their fields, contents, hardening and
#      symbols file, `lintian -I --pedantic` (no error, no warning but
#      initial-upload-closes-no-bugs, only the informational tags listed in
#      ACCEPTED_LINTIAN_INFO below), apt's view of their dependencies
#      (simulated), and the consumer and the packaged examples built against
#      the packages' files extracted into a throwaway root;
#   6. the API documentation: built in two build directories, the HTML must
#      be identical and free of paths of this machine; include lines name
#      <zel/...>.
#
# Needs: cmake, ninja, g++, pkg-config, libpoco-dev, dpkg-dev, debhelper,
# doxygen, lintian (./dev.sh package-check installs them). Prints the time of
# each step, ends with "N passed, M failed" and exits non-zero when any check
# failed.
set -uo pipefail

ROOT=$(cd "$(dirname "$0")/../.." && pwd)
BUILD=${1:-$ROOT/build/package-check}
JOBS=${JOBS:-$(nproc)}
WORK=$(mktemp -d "${TMPDIR:-/tmp}/zel-package-check.XXXXXX")
trap 'rm -rf "$WORK"' EXIT

# Informational lintian tags accepted on the source and binary packages; the
# README ("Install") says why each one is there. Anything else fails.
ACCEPTED_LINTIAN_INFO=()

passed=0
failed=0
step_name=""
step_start=$SECONDS
timings=""
end_step() {
  [ -n "$step_name" ] || return 0
  local took=$((SECONDS - step_start))
  timings+=$(printf '%5d s  %s' "$took" "$step_name")$'\n'
  printf -- '-- %s: %d s\n' "$step_name" "$took"
}
step() {
  end_step
  step_name=$*
  step_start=$SECONDS
  printf '\n== %s\n' "$*"
}
ok() {
  passed=$((passed + 1))
  printf 'ok   %s\n' "$1"
}
not_ok() {
  failed=$((failed + 1))
  printf 'FAIL %s\n' "$1"
}
# check DESCRIPTION COMMAND... - runs the command; its output is shown only
# when it fails.
check() {
  local what=$1
  shift
  if "$@" >"$WORK/check.log" 2>&1; then
    ok "$what"
  else
    not_ok "$what"
    sed 's/^/     /' "$WORK/check.log" | tail -40
  fi
}
# A step that later steps depend on: stop when it fails.
must() {
  local before=$failed
  check "$@"
  [ "$failed" -eq "$before" ] || finish
}
finish() {
  end_step
  printf '\ntime per step:\n%s' "$timings"
  printf '\npackage check: %d passed, %d failed\n' "$passed" "$failed"
  echo "$passed passed, $failed failed"
  [ "$failed" -eq 0 ]
  exit
}

# run_logging BINARY EXPECTED_LINES PATTERN... [-- ENV...] - runs a program
# that logs with a fresh log directory; it must exit 0 and its zel.log must
# hold EXPECTED_LINES records matching the patterns.
run_logging() {
  local binary=$1 lines=$2
  shift 2
  local patterns=()
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do
    patterns+=("$1")
    shift
  done
  [ $# -gt 0 ] && shift
  local logdir
  logdir=$(mktemp -d "$WORK/log.XXXXXX")
  env -u ZEL_LOGGING_FNAME -u ZEL_LOGGING_LEVEL TMPDIR="$logdir" "$@" "$binary" >"$logdir.out" || return 1
  cat "$logdir.out"
  local pattern
  for pattern in "${patterns[@]}"; do
    grep -q -- "$pattern" "$logdir/zel.log" || { echo "no record matching '$pattern' in:"; cat "$logdir/zel.log"; return 1; }
  done
  test "$(wc -l <"$logdir/zel.log")" -eq "$lines"
}
# run_consumer BINARY [ENV...] - the consumer must print "consumer: ok" and
# its two records must reach zel.log.
run_consumer() {
  local binary=$1
  shift
  run_logging "$binary" 2 " IN consumer  *consumer record 1$" " NO checkLogging  *macro record 2$" -- "$@" |
    grep -qx "consumer: ok"
}
run_macros() {
  local binary=$1
  shift
  run_logging "$binary" 2 " ER main  *macro error 1$" " WA main  *macro warning$" -- "$@" |
    grep -qx "macros: ok $VERSION"
}
run_bare() {
  local binary=$1
  shift
  run_logging "$binary" 1 " IN main  *bare record 3$" -- "$@" | grep -qx "bare: ok $VERSION"
}

VERSION=$(sed -nE 's/^project\(ZelCommon VERSION ([0-9.]+) .*/\1/p' "$ROOT/CMakeLists.txt")
MAJOR=${VERSION%%.*}
WARNINGS="-Wall -Wextra -Werror"

# ---------------------------------------------------------------------------
step "install preset: configure and build"
must "configure (install preset)" cmake --preset install -S "$ROOT" -B "$BUILD"
must "build library, tool and manual page" cmake --build "$BUILD" -j "$JOBS"
check "nothing but the library, the tool and the manual page built" bash -c \
  "! find '$BUILD' -name '*Test' -type f -perm -u+x | grep -q . && ! find '$BUILD' -name 'example_*' -type f | grep -q ."

# ---------------------------------------------------------------------------
step "install into a temporary prefix"
PREFIX=$WORK/prefix
must "cmake --install --prefix" cmake --install "$BUILD" --prefix "$PREFIX"
LIBDIR_REL=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$BUILD/CMakeCache.txt")
LIBDIR=$PREFIX/$LIBDIR_REL
LIBRARY=$LIBDIR/libzel_common.so.$VERSION
check "library file" test -f "$LIBRARY"
check "SONAME link" test "$(readlink "$LIBDIR/libzel_common.so.$MAJOR")" = "libzel_common.so.$VERSION"
check "development link" test "$(readlink "$LIBDIR/libzel_common.so")" = "libzel_common.so.$MAJOR"
check "SONAME libzel_common.so.$MAJOR" bash -c "readelf -d '$LIBRARY' | grep -q 'SONAME.*\[libzel_common.so.$MAJOR\]'"
check "library needs POCO Foundation and XML" bash -c \
  "readelf -d '$LIBRARY' | grep -q 'libPocoFoundation' && readelf -d '$LIBRARY' | grep -q 'libPocoXML'"
check "every public header installed in include/zel" bash -c \
  "cd '$ROOT/src/common/include/zel' && for h in *.h; do cmp -s \"\$h\" '$PREFIX/include/zel/'\"\$h\" || { echo \"missing \$h\"; exit 1; }; done"
check "generated zel/Version.h installed" test -f "$PREFIX/include/zel/Version.h"
check "no private header, no template installed" bash -c \
  "! ls '$PREFIX/include/zel' | grep -x -e Report.h -e TimeStamp.h -e LogFileNames.h -e 'Version.h.in'"
check "nothing else in include" test "$(ls "$PREFIX/include")" = zel
# The main target's include directory is the prefix's include/ alone
# (headers are included as <zel/...>).
# shellcheck disable=SC2016 # the CMake variable is text here
check "Zel::common puts only include/ on the include path" bash -c \
  "sed -n '/^set_target_properties(Zel::common PROPERTIES/,/^)/p' '$LIBDIR/cmake/ZelCommon/ZelCommonTargets.cmake' | grep -qF 'INTERFACE_INCLUDE_DIRECTORIES \"\${_IMPORT_PREFIX}/include\"'"
check "CMake package files" test -f "$LIBDIR/cmake/ZelCommon/ZelCommonConfig.cmake" -a \
  -f "$LIBDIR/cmake/ZelCommon/ZelCommonConfigVersion.cmake" -a -f "$LIBDIR/cmake/ZelCommon/ZelCommonTargets.cmake"
check "pkg-config file names the install prefix" grep -qx "prefix=$PREFIX" "$LIBDIR/pkgconfig/zel_common.pc"
check "tool and manual page installed" test -x "$PREFIX/bin/zel" -a -f "$PREFIX/share/man/man1/zel.1.gz"
check "no Debian-only file in a non-Debian prefix" bash -c \
  "! find '$PREFIX' \\( -name 'changelog.Debian*' -o -name copyright -o -path '*/lintian/*' -o -name '*.symbols' -o -path '*/doc-base/*' \\) | grep ."
check "nothing but bin, include, lib and share/man installed" bash -c \
  "test \"\$(ls '$PREFIX' | tr '\n' ' ')\" = 'bin include lib share ' && test \"\$(ls '$PREFIX/share')\" = man"

# ---------------------------------------------------------------------------
step "version header and exported symbols"
check "zel/Version.h names the project's version $VERSION" bash -c \
  "grep -qx '#define ZEL_COMMON_VERSION_STRING \"$VERSION\"' '$PREFIX/include/zel/Version.h' &&
   grep -qx '#define ZEL_COMMON_VERSION_MAJOR $MAJOR' '$PREFIX/include/zel/Version.h'"
check "zel --version names the version of zel/Version.h" test "$("$PREFIX/bin/zel" --version)" = "zel (libzel_common) $VERSION"
nm -D --defined-only -C "$LIBRARY" | cut -d' ' -f3- | sort -u >"$WORK/exported.txt"
echo "$(wc -l <"$WORK/exported.txt") dynamic symbols defined"
check "no internal symbol exported" bash -c "! grep -E 'Zel::internal|anonymous namespace|ZelTest' '$WORK/exported.txt'"
check "only the Zel namespace exported" bash -c \
  "! grep -Ev '^((typeinfo|typeinfo name|vtable|VTT|guard variable) for |(non-)?virtual thunk to )?Zel::' '$WORK/exported.txt'"
# Every public class, free function and exported variable named in the headers.
: >"$WORK/missing.txt"
: >"$WORK/checked.txt"
for header in "$ROOT"/src/common/include/zel/*.h "$PREFIX/include/zel/Version.h"; do
  for class in $(sed -nE 's/^class ZEL_API( ZEL_CAPABILITY\([^)]*\))? ([A-Za-z_]+).*/\2/p' "$header"); do
    echo class >>"$WORK/checked.txt"
    grep -q "Zel::$class::" "$WORK/exported.txt" || echo "class Zel::$class" >>"$WORK/missing.txt"
  done
  for name in $(sed -nE 's/^extern ZEL_API [^;()]*[ *]([A-Za-z_][A-Za-z_0-9]*);.*/\1/p' "$header"); do
    echo data >>"$WORK/checked.txt"
    grep -Eq "^Zel::(Trace::)?$name$" "$WORK/exported.txt" || echo "data $name" >>"$WORK/missing.txt"
  done
  for name in $(sed -nE 's/^ZEL_API [^(]*[ *]([A-Za-z_][A-Za-z_0-9]*)\(.*/\1/p' "$header"); do
    echo function >>"$WORK/checked.txt"
    grep -Eq "^Zel::$name(\[abi:cxx11\])?\(" "$WORK/exported.txt" || echo "function $name" >>"$WORK/missing.txt"
  done
  # Static data members of the exported classes.
  for name in $(sed -nE 's/^  static (const )?[A-Za-z_0-9:<>]+[ *]+(const )?([A-Za-z_][A-Za-z_0-9]*);.*/\3/p' "$header"); do
    echo "static member" >>"$WORK/checked.txt"
    grep -Eq "^Zel::[A-Za-z]+::$name$" "$WORK/exported.txt" || echo "static member $name" >>"$WORK/missing.txt"
  done
done
echo "looked up: $(sort "$WORK/checked.txt" | uniq -c | awk '{n=$1; $1=""; printf "%s%s x%s", sep, $0, n; sep=","}')"
check "every public class, function and data item exported" bash -c "cat '$WORK/missing.txt'; test ! -s '$WORK/missing.txt'"
check "libraryVersion and libraryVersionNumber exported" bash -c \
  "grep -qx 'Zel::libraryVersion()' '$WORK/exported.txt' && grep -qx 'Zel::libraryVersionNumber()' '$WORK/exported.txt'"
check "exception classes have exported type information" bash -c \
  "for c in ZelException ZelInternalErrorException ZelInternalException MandatoryAlwaysRunningStartFailedException; do grep -qx \"typeinfo for Zel::\$c\" '$WORK/exported.txt' || { echo \"no typeinfo for \$c\"; exit 1; }; done"

# ---------------------------------------------------------------------------
step "ABI: exported symbols against debian/libzel-common1.symbols"
SYMBOLS=$ROOT/debian/libzel-common1.symbols
# abi_check SYMBOLS_FILE - dpkg-gensymbols as for a release after $VERSION:
# at -c4 any symbol missing from the library or from the file fails. (At the
# version that introduced a symbol, dpkg-gensymbols lets it go silently; a
# later version is what a user upgrading sees.)
abi_check() {
  local pkgdir=$WORK/abi/pkg
  rm -rf "$WORK/abi"
  mkdir -p "$pkgdir/DEBIAN" "$pkgdir/usr/$LIBDIR_REL"
  cp -a "$LIBDIR"/libzel_common.so.* "$pkgdir/usr/$LIBDIR_REL/"
  (cd "$ROOT" && dpkg-gensymbols -c4 -q -plibzel-common1 -P"$pkgdir" -v"$VERSION+later" -I"$1" \
    -e"$pkgdir/usr/$LIBDIR_REL/libzel_common.so.$VERSION" -O"$WORK/abi/symbols" 2>&1)
}
check "every exported symbol recorded, every recorded symbol exported" abi_check "$SYMBOLS"
echo "$(grep -c '^ ' "$SYMBOLS") symbols and patterns recorded in $(basename "$SYMBOLS")"
# The check must fail on a symbol that disappeared ...
{ cat "$SYMBOLS"; echo ' (c++)"Zel::DnUtil::removedFunction()@Base" 1.0.0'; } >"$WORK/symbols.more"
# ... and on one that changed (its old name gone, its new name unrecorded).
sed 's/Zel::ZelReturn::strerror(ZelReturnT)/Zel::ZelReturn::strerror(int)/' "$SYMBOLS" >"$WORK/symbols.changed"
export -f abi_check
export WORK LIBDIR LIBDIR_REL ROOT VERSION
check "the ABI check fails when a recorded symbol is gone" bash -c "! abi_check '$WORK/symbols.more'"
check "the ABI check fails when a symbol's signature changes" bash -c "! abi_check '$WORK/symbols.changed'"

# ---------------------------------------------------------------------------
step "consumer through the CMake package"
must "configure consumer with CMAKE_PREFIX_PATH" cmake -S "$ROOT/tests/consumer" -B "$WORK/consumer-cmake" -G Ninja \
  -DCMAKE_PREFIX_PATH="$PREFIX" -DCMAKE_CXX_FLAGS="$WARNINGS"
must "build consumer, macros-only and bare-name programs" cmake --build "$WORK/consumer-cmake"
check "consumer (CMake) runs" run_consumer "$WORK/consumer-cmake/consumer"
check "record macros through <zel/LoggingWrapper.h> alone; library version = header version" \
  run_macros "$WORK/consumer-cmake/consumer_macros"
check "bare header names through Zel::common_bare_includes" run_bare "$WORK/consumer-cmake/consumer_bare"
check "bare header names do not build through Zel::common" bash -c \
  "! g++ -std=c++17 -fsyntax-only -I'$PREFIX/include' '$ROOT/tests/consumer/bare.cpp'"
check "version check rejects $((MAJOR + 1)).0" bash -c "! cmake -S '$ROOT/tests/consumer' -B '$WORK/consumer-v2' -G Ninja \
  -DCMAKE_PREFIX_PATH='$PREFIX' -DZEL_CONSUMER_VERSION=$((MAJOR + 1)).0"

step "consumer through pkg-config"
export PKG_CONFIG_PATH=$LIBDIR/pkgconfig
check "pkg-config finds zel_common $VERSION" test "$(pkg-config --modversion zel_common)" = "$VERSION"
echo "pkg-config --cflags --libs zel_common: $(pkg-config --cflags --libs zel_common)"
check "pkg-config puts only include/ on the include path" test "$(pkg-config --cflags-only-I zel_common | tr -d " ")" = "-I$PREFIX/include"
check "bare_include_cflags names include/zel" test "$(pkg-config --variable=bare_include_cflags zel_common)" = "-I$PREFIX/include/zel"
# shellcheck disable=SC2046 # the flags are meant to split
must "build consumer with pkg-config flags" g++ $WARNINGS "$ROOT/tests/consumer/main.cpp" \
  $(pkg-config --cflags --libs zel_common) -o "$WORK/consumer-pc"
check "consumer (pkg-config) runs" run_consumer "$WORK/consumer-pc" LD_LIBRARY_PATH="$LIBDIR"
# shellcheck disable=SC2046
check "macros-only program (pkg-config) builds and runs" bash -c \
  "g++ $WARNINGS '$ROOT/tests/consumer/macros.cpp' $(pkg-config --cflags --libs zel_common) -o '$WORK/macros-pc'" &&
  check "macros-only program (pkg-config) runs" run_macros "$WORK/macros-pc" LD_LIBRARY_PATH="$LIBDIR"
# shellcheck disable=SC2046
check "bare-name program (pkg-config, bare_include_cflags) builds" bash -c \
  "g++ $WARNINGS '$ROOT/tests/consumer/bare.cpp' $(pkg-config --cflags --libs zel_common) $(pkg-config --variable=bare_include_cflags zel_common) -o '$WORK/bare-pc'" &&
  check "bare-name program (pkg-config) runs" run_bare "$WORK/bare-pc" LD_LIBRARY_PATH="$LIBDIR"
unset PKG_CONFIG_PATH

step "examples copied out of the tree, against the installation"
cp -r "$ROOT/examples" "$WORK/examples-copy"
must "configure the copied examples" cmake -S "$WORK/examples-copy" -B "$WORK/examples-build" -G Ninja \
  -DCMAKE_PREFIX_PATH="$PREFIX" -DCMAKE_CXX_FLAGS="$WARNINGS"
must "build the copied examples" cmake --build "$WORK/examples-build" -j "$JOBS"
check "every example built" bash -c \
  "for s in '$ROOT'/examples/*.cpp; do t=\$(basename \"\$s\" .cpp); test -x '$WORK/examples-build/'example_\$t || { echo \"no example_\$t\"; exit 1; }; done"
check "example_logging (macros through <zel/LoggingWrapper.h> only) writes its records" \
  run_logging "$WORK/examples-build/example_logging" 122 " ER writeRecords  *Failed to write signal. Errno 32 on record 59$" -- \
  ZEL_LOGGING_FMAXSIZE=100000000

step "installed tool, then uninstall"
check "zel runs from the prefix without LD_LIBRARY_PATH" test "$("$PREFIX/bin/zel" strerror -8)" = ZelInvalidArgument
check "zel log writes through the installed library" bash -c \
  "d=\$(mktemp -d '$WORK/toollog.XXXXXX') && TMPDIR=\$d '$PREFIX/bin/zel' log -l 3 -t check packaged && grep -q ' ER check  *packaged\$' \$d/zel.log"
must "uninstall target" cmake --build "$BUILD" --target uninstall
check "uninstall leaves no file in the prefix" bash -c "test -z \"\$(find '$PREFIX' ! -type d)\""
check "uninstall removes the project's own directories" bash -c \
  "test ! -e '$PREFIX/include/zel' -a ! -e '$LIBDIR/cmake/ZelCommon'"

# ---------------------------------------------------------------------------
step "Debian source package: changelog"
check "debian/changelog is generated from CHANGELOG.md (debian/changelog-from-upstream)" bash -c \
  "cd '$ROOT' && debian/changelog-from-upstream | diff -u debian/changelog -"
check "the top CHANGELOG.md section is the project's version $VERSION" bash -c \
  "test \"\$(sed -nE 's/^## ([0-9.]+) - .*/\\1/p' '$ROOT/CHANGELOG.md' | head -1)\" = '$VERSION' &&
   test \"\$(cd '$ROOT' && dpkg-parsechangelog -S Version)\" = '$VERSION'"

step "Debian packages: dpkg-buildpackage -us -uc"
SRC=$WORK/src/libzel-common-$VERSION
mkdir -p "$SRC"
# The files of the source tree, as a clean clone has them (plus files not
# yet committed), without build directories.
if git -C "$ROOT" rev-parse --git-dir >/dev/null 2>&1; then
  (cd "$ROOT" && git ls-files -z --cached --others --exclude-standard | xargs -0 -I{} sh -c 'test -e "{}" && printf "%s\0" "{}"' |
    tar -c --null -T - | tar -x -C "$SRC")
else
  tar -C "$ROOT" --exclude=./build -c . | tar -x -C "$SRC"
fi
must "dpkg-buildpackage -us -uc (source and binary packages)" bash -c \
  "cd '$SRC' && DEB_BUILD_OPTIONS='nocheck parallel=$JOBS' dpkg-buildpackage -us -uc >'$WORK/dpkg-buildpackage.log' 2>&1 || { tail -60 '$WORK/dpkg-buildpackage.log'; exit 1; }"
OUT=$WORK/src
rm -f "$BUILD"/*.deb "$BUILD"/*.dsc "$BUILD"/*.tar.xz "$BUILD"/*.changes "$BUILD"/*.buildinfo
cp "$OUT"/*.deb "$OUT"/*.dsc "$OUT"/*.tar.xz "$OUT"/*.changes "$OUT"/*.buildinfo "$BUILD"/
ARCH=$(dpkg --print-architecture)
DEB_LIBDIR=usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
RUNTIME_DEB=$OUT/libzel-common${MAJOR}_${VERSION}_$ARCH.deb
DEV_DEB=$OUT/libzel-common-dev_${VERSION}_$ARCH.deb
TOOLS_DEB=$OUT/zel-tools_${VERSION}_$ARCH.deb
check "source package, three packages and their debug symbols built" bash -c \
  "cd '$OUT' && ls libzel-common_$VERSION.dsc libzel-common_$VERSION.tar.xz '$RUNTIME_DEB' '$DEV_DEB' '$TOOLS_DEB' \
   libzel-common${MAJOR}-dbgsym_${VERSION}_$ARCH.deb zel-tools-dbgsym_${VERSION}_$ARCH.deb"
check "no test, example or benchmark built by the package build" bash -c \
  "! grep -E 'Building CXX object .*(/test/|examples/|bench/)' '$WORK/dpkg-buildpackage.log'"
check "the package build checks the symbols file (dh_makeshlibs -- -c4)" grep -q "dh_makeshlibs -- -c4" "$WORK/dpkg-buildpackage.log"

step "Debian packages: fields, contents, hardening"
for deb in "$RUNTIME_DEB" "$DEV_DEB" "$TOOLS_DEB"; do
  echo "--- $(basename "$deb")"
  dpkg-deb -f "$deb" Package Version Architecture Multi-Arch Depends
  dpkg-deb -c "$deb" | awk '{print "    " $6 ($7 ? " " $7 " " $8 : "")}' | grep -v '/html/.' | grep -v '/examples/.'
done
field() { dpkg-deb -f "$1" "$2"; }
check "runtime package depends on POCO runtime packages" bash -c \
  "dpkg-deb -f '$RUNTIME_DEB' Depends | grep -q 'libpocofoundation[0-9]*' && dpkg-deb -f '$RUNTIME_DEB' Depends | grep -q 'libpocoxml[0-9]*'"
check "runtime package holds the library, its SONAME link and its doc files only" bash -c \
  "test \"\$(dpkg-deb -c '$RUNTIME_DEB' | awk '\$1 !~ /^d/ {print \$6}' | sort | tr '\n' ' ')\" = \
'./$DEB_LIBDIR/libzel_common.so.$MAJOR ./$DEB_LIBDIR/libzel_common.so.$VERSION ./usr/share/doc/libzel-common$MAJOR/changelog.gz ./usr/share/doc/libzel-common$MAJOR/copyright '"
check "runtime package has the symbols file, shlibs and the ldconfig trigger, no maintainer scripts" bash -c \
  "d=\$(mktemp -d '$WORK/ctl.XXXXXX') && dpkg-deb -e '$RUNTIME_DEB' \$d && grep -qx 'libzel_common $MAJOR libzel-common$MAJOR (>= $VERSION)' \$d/shlibs &&
   grep -q '^libzel_common.so.$MAJOR libzel-common$MAJOR #MINVER#' \$d/symbols && grep -q '^ _ZN3Zel14libraryVersionEv@Base $VERSION$' \$d/symbols &&
   grep -qx 'activate-noawait ldconfig' \$d/triggers && test ! -e \$d/postinst -a ! -e \$d/postrm"
check "library packages are Multi-Arch: same" bash -c \
  "test \"\$(dpkg-deb -f '$RUNTIME_DEB' Multi-Arch)\" = same && test \"\$(dpkg-deb -f '$DEV_DEB' Multi-Arch)\" = same"
check "every package has its copyright (machine-readable) and changelog from CHANGELOG.md" bash -c \
  "for deb in '$RUNTIME_DEB' '$DEV_DEB' '$TOOLS_DEB'; do p=\$(dpkg-deb -f \$deb Package); d=\$(mktemp -d '$WORK/doc.XXXXXX'); dpkg-deb -x \$deb \$d || exit 1; head -1 \$d/usr/share/doc/\$p/copyright | grep -qx 'Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/' || { echo \"\$p: copyright\"; exit 1; }; gzip -cd \$d/usr/share/doc/\$p/changelog.gz | cmp -s - '$ROOT/debian/changelog' || { echo \"\$p: changelog\"; exit 1; }; done"
check "maintainer has a real mail domain" bash -c "dpkg-deb -f '$RUNTIME_DEB' Maintainer | grep -Eq '<[^@>]+@[a-z0-9-]+(\\.[a-z0-9-]+)+>' && ! dpkg-deb -f '$RUNTIME_DEB' Maintainer | grep -q localhost"
check "development package depends on the runtime and libpoco-dev" bash -c \
  "dpkg-deb -f '$DEV_DEB' Depends | grep -q 'libzel-common$MAJOR (= $(field "$RUNTIME_DEB" Version))' && dpkg-deb -f '$DEV_DEB' Depends | grep -q libpoco-dev"
dpkg-deb -c "$DEV_DEB" >"$WORK/dev.txt"
check "development package holds headers (Version.h too), link, CMake package, pkg-config" bash -c \
  "grep -q ' ./usr/include/zel/LoggingWrapper.h$' '$WORK/dev.txt' && grep -q ' ./usr/include/zel/Version.h$' '$WORK/dev.txt' && grep -q ' ./$DEB_LIBDIR/libzel_common.so -> libzel_common.so.$MAJOR$' '$WORK/dev.txt' && grep -q ' ./$DEB_LIBDIR/cmake/ZelCommon/ZelCommonConfig.cmake$' '$WORK/dev.txt' && grep -q ' ./$DEB_LIBDIR/pkgconfig/zel_common.pc$' '$WORK/dev.txt' && ! grep -q 'libzel_common.so.$VERSION' '$WORK/dev.txt'"
check "development package holds the API documentation, registered with doc-base" bash -c \
  "grep -q ' ./usr/share/doc/libzel-common-dev/html/index.html$' '$WORK/dev.txt' && grep -q ' ./usr/share/doc-base/libzel-common-dev.libzel-common-dev$' '$WORK/dev.txt'"
check "development package holds the examples, uncompressed, with their CMakeLists.txt" bash -c \
  "for s in '$ROOT'/examples/*; do grep -q \" ./usr/share/doc/libzel-common-dev/examples/\$(basename \$s)\$\" '$WORK/dev.txt' || { echo \"missing \$s\"; exit 1; }; done"
check "tools package holds zel and its manual page and depends on the runtime" bash -c \
  "dpkg-deb -c '$TOOLS_DEB' | grep -q ' ./usr/bin/zel$' && dpkg-deb -c '$TOOLS_DEB' | grep -q ' ./usr/share/man/man1/zel.1.gz$' && dpkg-deb -f '$TOOLS_DEB' Depends | grep -q 'libzel-common$MAJOR (>= $VERSION)'"
DEBROOT=$WORK/debroot
must "extract the packages into a throwaway root" bash -c \
  "for deb in '$RUNTIME_DEB' '$DEV_DEB' '$TOOLS_DEB' '$OUT'/*-dbgsym_*.deb; do dpkg-deb -x \$deb '$DEBROOT' || exit 1; done"
PKG_LIB=$DEBROOT/$DEB_LIBDIR/libzel_common.so.$VERSION
check "hardening: library and tool linked with -z relro -z now" bash -c \
  "for f in '$PKG_LIB' '$DEBROOT/usr/bin/zel'; do readelf -d \$f | grep -q 'BIND_NOW' && readelf -d \$f | grep -Eq 'FLAGS_1.*NOW' && readelf -lW \$f | grep -q GNU_RELRO || { echo \"\$f\"; exit 1; }; done"
check "hardening: the tool is position-independent, both use fortified and stack-protected calls" bash -c \
  "readelf -h '$DEBROOT/usr/bin/zel' | grep -q 'DYN' && nm -D '$DEBROOT/usr/bin/zel' '$PKG_LIB' | grep -q '__stack_chk_fail' && nm -D '$PKG_LIB' | grep -Eq '__[a-z]+_chk@'"
check "binaries stripped, their debug information in the -dbgsym packages" bash -c \
  "! readelf -S '$PKG_LIB' | grep -q '\\.debug_info' && id=\$(readelf -n '$PKG_LIB' | sed -n 's/.*Build ID: //p') &&
   test -n \"\$id\" && readelf -S '$DEBROOT/usr/lib/debug/.build-id/'\${id:0:2}/\${id:2}.debug | grep -q '\\.debug_info'"
check "no RPATH in the packaged binaries" bash -c "! readelf -d '$DEBROOT/usr/bin/zel' '$PKG_LIB' | grep -Eq 'RPATH|RUNPATH'"

step "ABI: types and layout against the stored baseline (abidiff)"
# debian/abi/libzel_common.so.MAJOR.abi.xz is the ABI of the last release as
# abidw describes it (public headers' types only, from the -dbgsym debug
# information): functions, variables and the layout of every class and
# record they use. A removed or changed symbol, a class grown, shrunk or
# re-ordered fails; additions do not. ZEL_UPDATE_ABI_BASELINE=1 writes the
# baseline from this build instead (after a release, or with a new major).
BASELINE=$ROOT/debian/abi/libzel_common.so.$MAJOR.abi.xz
abidw_package() {
  abidw --no-corpus-path --drop-private-types --headers-dir "$DEBROOT/usr/include/zel" \
    --debug-info-dir "$DEBROOT/usr/lib/debug" "$PKG_LIB"
}
abidiff_package() {
  abidiff --no-added-syms --drop-private-types --headers-dir2 "$DEBROOT/usr/include/zel" \
    --debug-info-dir2 "$DEBROOT/usr/lib/debug" "$1" "$PKG_LIB"
}
if [ "${ZEL_UPDATE_ABI_BASELINE:-0}" = 1 ]; then
  mkdir -p "$(dirname "$BASELINE")"
  must "write the ABI baseline $BASELINE" bash -c "$(declare -f abidw_package); DEBROOT='$DEBROOT' PKG_LIB='$PKG_LIB' abidw_package | xz -9 >'$BASELINE'"
fi
must "ABI baseline present ($(basename "$BASELINE"))" test -s "$BASELINE"
xz -dc "$BASELINE" >"$WORK/baseline.abi"
check "abidiff: nothing removed or changed since the baseline" abidiff_package "$WORK/baseline.abi"
# The same check against a baseline whose Zel::Clock was one member larger
# must fail: a layout change is caught, not only a symbol change.
awk '
  /<class-decl name=.Clock. size-in-bits=.64./ { sub(/size-in-bits=.64./, "size-in-bits=\047128\047"); inClock = 1 }
  { print }
  inClock && /<\/data-member>/ && prev ~ /name=._value./ {
    print "        <data-member access=\047private\047 layout-offset-in-bits=\047" 64 "\047>"
    print "          <var-decl name=\047_grown\047 type-id=\047" typeId "\047 visibility=\047default\047/>"
    print "        </data-member>"
    inClock = 0
  }
  inClock && /name=._value./ { match($0, /type-id=.[^\047]*./); typeId = substr($0, RSTART + 9, RLENGTH - 10) }
  { prev = $0 }' "$WORK/baseline.abi" >"$WORK/baseline-grown.abi"
check "abidiff fails when a class's layout differs from the baseline" bash -c \
  "! cmp -s '$WORK/baseline.abi' '$WORK/baseline-grown.abi' && $(declare -f abidiff_package); DEBROOT='$DEBROOT' PKG_LIB='$PKG_LIB'; ! abidiff_package '$WORK/baseline-grown.abi' >/dev/null"

step "Debian packages: lintian -I --pedantic"
# shellcheck disable=SC2012
lintian -I --pedantic --allow-root "$OUT"/libzel-common_"$VERSION"_"$ARCH".changes >"$WORK/lintian.txt" 2>&1
lintian_status=$?
sed 's/^/     /' "$WORK/lintian.txt"
echo "     (lintian exit status $lintian_status)"
check "lintian: no error" bash -c "! grep -q '^E: ' '$WORK/lintian.txt'"
check "lintian: no warning but initial-upload-closes-no-bugs" bash -c \
  "! grep '^W: ' '$WORK/lintian.txt' | grep -v ' initial-upload-closes-no-bugs'"
unexpected_info() {
  local tag accepted
  grep -E '^[IP]: ' "$WORK/lintian.txt" | while read -r _ _ tag _; do
    accepted=no
    for a in "${ACCEPTED_LINTIAN_INFO[@]}"; do [ "$tag" = "$a" ] && accepted=yes; done
    [ "$accepted" = yes ] || echo "$tag"
  done
}
unexpected=$(unexpected_info | sort -u | tr '\n' ' ')
check "lintian: informational tags only those accepted (${ACCEPTED_LINTIAN_INFO[*]:-none})" bash -c \
  "echo 'unexpected: $unexpected'; test -z '$unexpected'"

step "Debian packages: dependencies and use"
check "apt resolves the packages' dependencies (simulated)" bash -c \
  "apt-get install --simulate --no-install-recommends '$RUNTIME_DEB' '$DEV_DEB' '$TOOLS_DEB' | grep -q '^Inst libzel-common$MAJOR '"
check "packaged pkg-config file names /usr" grep -qx "prefix=/usr" "$DEBROOT/$DEB_LIBDIR/pkgconfig/zel_common.pc"
must "configure consumer against the extracted tree" cmake -S "$ROOT/tests/consumer" -B "$WORK/consumer-deb" -G Ninja \
  -DCMAKE_PREFIX_PATH="$DEBROOT/usr" -DCMAKE_CXX_FLAGS="$WARNINGS"
must "build consumer against the extracted tree" cmake --build "$WORK/consumer-deb"
check "consumer (package, CMake) runs" run_consumer "$WORK/consumer-deb/consumer" LD_LIBRARY_PATH="$DEBROOT/$DEB_LIBDIR"
check "macros-only program (package, CMake) runs" run_macros "$WORK/consumer-deb/consumer_macros" LD_LIBRARY_PATH="$DEBROOT/$DEB_LIBDIR"
# The packaged .pc names /usr; the sysroot variable maps it into the tree.
check "consumer (package, pkg-config) builds and runs" bash -c \
  "PKG_CONFIG_PATH='$DEBROOT/$DEB_LIBDIR/pkgconfig' PKG_CONFIG_SYSROOT_DIR='$DEBROOT' \
   g++ $WARNINGS '$ROOT/tests/consumer/main.cpp' \$(PKG_CONFIG_PATH='$DEBROOT/$DEB_LIBDIR/pkgconfig' PKG_CONFIG_SYSROOT_DIR='$DEBROOT' pkg-config --cflags --libs zel_common) -o '$WORK/consumer-deb-pc' \
   && test \"\$(readelf -d '$WORK/consumer-deb-pc' | grep -c 'libzel_common.so.$MAJOR')\" = 1"
check "consumer (package, pkg-config) runs" run_consumer "$WORK/consumer-deb-pc" LD_LIBRARY_PATH="$DEBROOT/$DEB_LIBDIR"
check "packaged examples build from a copy against the packages' files" bash -c \
  "cp -r '$DEBROOT/usr/share/doc/libzel-common-dev/examples' '$WORK/examples-deb' &&
   cmake -S '$WORK/examples-deb' -B '$WORK/examples-deb-build' -G Ninja -DCMAKE_PREFIX_PATH='$DEBROOT/usr' -DCMAKE_CXX_FLAGS='$WARNINGS' >/dev/null &&
   cmake --build '$WORK/examples-deb-build' -j '$JOBS' >/dev/null && test -x '$WORK/examples-deb-build/example_logging'"
check "packaged zel runs and names the packaged version" bash -c \
  "test \"\$(LD_LIBRARY_PATH='$DEBROOT/$DEB_LIBDIR' '$DEBROOT/usr/bin/zel' dn build '' Equipment id 1)\" = Equipment=1 &&
   test \"\$(LD_LIBRARY_PATH='$DEBROOT/$DEB_LIBDIR' '$DEBROOT/usr/bin/zel' --version)\" = 'zel (libzel_common) $VERSION'"

# ---------------------------------------------------------------------------
step "API documentation"
# The HTML of the package build, and two more builds of the docs target in
# two other build directories: the three must be identical.
HTML=$DEBROOT/usr/share/doc/libzel-common-dev/html
for n in 1 2; do
  must "docs target in build directory $n" bash -c \
    "cmake -S '$ROOT' -B '$WORK/docs-build-$n' -G Ninja -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_TOOLS=OFF -DZEL_BUILD_EXAMPLES=OFF >/dev/null && cmake --build '$WORK/docs-build-$n' --target docs"
done
# doxygen is looked for when the target is built, not when configuring: a
# build directory configured before doxygen was installed has the target,
# and without doxygen the target says what to install.
check "docs target without doxygen says what to install" bash -c \
  "! env PATH=/nonexistent '$(command -v cmake)' -DZEL_DOCS_OUTPUT='$WORK/nodoxygen' -DZEL_HEADERS= -P '$ROOT/cmake/ZelRunDoxygen.cmake' 2>'$WORK/nodoxygen.err' &&
   grep -q 'apt-get' '$WORK/nodoxygen.err' && grep -q 'install doxygen' '$WORK/nodoxygen.err'"
check "two builds in two directories give identical HTML" diff -r "$WORK/docs-build-1/docs/html" "$WORK/docs-build-2/docs/html"
check "the packaged HTML is the same HTML" diff -r "$WORK/docs-build-1/docs/html" "$HTML"
check "no path of this machine in the HTML" bash -c "! grep -rl -e '$WORK' -e '$ROOT' -e '$SRC' '$HTML'"
check "the main page is the README" bash -c "grep -q \"is the C++ utility library that every process\" '$HTML/index.html' && grep -q \"Quick start\" '$HTML/index.html'"
check "class pages name the header as <zel/...>" bash -c \
  "grep -q '#include &lt;<a [^>]*>zel/LoggingWrapper.h</a>&gt;' '$HTML/classZel_1_1LoggingWrapper.html' && ! grep -l '#include &lt;<a [^>]*>[A-Za-z]*\\.h</a>&gt;' '$HTML'/class*.html"
check "Markdown renders: code spans in the class pages, no literal backquote" bash -c \
  "grep -q '<code>' '$HTML/classZel_1_1LoggingWrapper.html' && ! grep -l '\`' '$HTML'/class*.html '$HTML'/*_8h.html"
check "no literal /// in the rendered pages" bash -c "! grep -l '///' '$HTML'/*.html"
check "private members left out" bash -c "! grep -lE '_vekLevel|_vekDebugLevel|Private (Member|Attributes)' \$(ls '$HTML'/*.html | grep -v _source.html)"

finish
