#!/usr/bin/env bash
# check.sh [BUILD_DIR] - checks libzel_common the way its users get it.
#
#   1. builds the library and the zel tool for /usr (RelWithDebInfo) in
#      BUILD_DIR (default build/package-check) and installs them into a
#      temporary prefix with `cmake --install --prefix`;
#   2. checks the installed files: library, SONAME and links, headers in
#      include/zel, CMake package, pkg-config file, tool;
#   3. checks the exported symbols: nothing internal, nothing outside the Zel
#      namespace, and every public class, function and data item of the
#      headers present;
#   4. builds tests/consumer against the installation through the CMake
#      package (CMAKE_PREFIX_PATH) and through pkg-config (PKG_CONFIG_PATH)
#      and runs both, and runs the installed tool;
#   5. makes the Debian packages with `cpack -G DEB`, checks their control
#      fields and contents (copyright, changelog, ldconfig trigger,
#      Multi-Arch, API HTML, manual page), lets apt resolve their dependencies (simulated,
#      nothing is installed), extracts them into a throwaway root and builds
#      and runs the consumer against that tree;
#   6. runs lintian on the packages (any error fails) and checks the API
#      documentation built with the library (doxygen; any warning fails).
#
# Needs: cmake, ninja, g++, pkg-config, libpoco-dev, dpkg-dev, doxygen
# (./dev.sh package-check installs them). Ends with "N passed, M failed" and
# exits non-zero when any check failed.
set -uo pipefail

ROOT=$(cd "$(dirname "$0")/../.." && pwd)
BUILD=${1:-$ROOT/build/package-check}
JOBS=${JOBS:-$(nproc)}
WORK=$(mktemp -d "${TMPDIR:-/tmp}/zel-package-check.XXXXXX")
trap 'rm -rf "$WORK"' EXIT

passed=0
failed=0
step() { printf '\n== %s\n' "$*"; }
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
  printf '\npackage check: %d passed, %d failed\n' "$passed" "$failed"
  echo "$passed passed, $failed failed"
  [ "$failed" -eq 0 ]
  exit
}

# run_consumer BINARY [ENV...] - runs the consumer with a fresh log
# directory; it must print "consumer: ok" and its record must reach zel.log.
run_consumer() {
  local binary=$1
  shift
  local logdir
  logdir=$(mktemp -d "$WORK/log.XXXXXX")
  env -u ZEL_LOGGING_FNAME -u ZEL_LOGGING_LEVEL TMPDIR="$logdir" "$@" "$binary" | grep -qx "consumer: ok" &&
    grep -q " IN consumer  *consumer record 1$" "$logdir/zel.log" &&
    grep -q " NO checkLogging  *macro record 2$" "$logdir/zel.log" &&
    test "$(wc -l <"$logdir/zel.log")" -eq 2
}

# ---------------------------------------------------------------------------
step "build for /usr in $BUILD"
must "configure" cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_INSTALL_PREFIX=/usr -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_EXAMPLES=OFF -DZEL_BUILD_BENCH=OFF \
  -DZEL_INSTALL_API_DOCS=ON
must "build library, tool, manual page and API documentation" cmake --build "$BUILD" -j "$JOBS"

# ---------------------------------------------------------------------------
step "install into a temporary prefix"
PREFIX=$WORK/prefix
must "cmake --install --prefix" cmake --install "$BUILD" --prefix "$PREFIX"
LIBDIR_REL=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$BUILD/CMakeCache.txt")
LIBDIR=$PREFIX/$LIBDIR_REL
check "library file" test -f "$LIBDIR/libzel_common.so.1.0.0"
check "SONAME link" test "$(readlink "$LIBDIR/libzel_common.so.1")" = libzel_common.so.1.0.0
check "development link" test "$(readlink "$LIBDIR/libzel_common.so")" = libzel_common.so.1
check "SONAME libzel_common.so.1" bash -c "readelf -d '$LIBDIR/libzel_common.so.1.0.0' | grep -q 'SONAME.*\[libzel_common.so.1\]'"
check "library needs POCO Foundation and XML" bash -c \
  "readelf -d '$LIBDIR/libzel_common.so.1.0.0' | grep -q 'libPocoFoundation' && readelf -d '$LIBDIR/libzel_common.so.1.0.0' | grep -q 'libPocoXML'"
check "every public header installed in include/zel" bash -c \
  "cd '$ROOT/src/common/include/zel' && for h in *.h; do cmp -s \"\$h\" '$PREFIX/include/zel/'\"\$h\" || { echo \"missing \$h\"; exit 1; }; done"
check "no private header installed" bash -c "! ls '$PREFIX/include/zel' | grep -qx -e Report.h -e TimeStamp.h -e LogFileNames.h"
check "nothing else in include" test "$(ls "$PREFIX/include")" = zel
# The imported target's include directory is the prefix's include/ alone
# (headers are included as <zel/...>).
# shellcheck disable=SC2016 # the CMake variable is text here
include_dir_is_prefix_only() { grep -qF 'INTERFACE_INCLUDE_DIRECTORIES "${_IMPORT_PREFIX}/include"' "$1"; }
check "CMake target puts only include/ on the include path" \
  include_dir_is_prefix_only "$LIBDIR/cmake/ZelCommon/ZelCommonTargets.cmake"
check "CMake package files" test -f "$LIBDIR/cmake/ZelCommon/ZelCommonConfig.cmake" -a \
  -f "$LIBDIR/cmake/ZelCommon/ZelCommonConfigVersion.cmake" -a -f "$LIBDIR/cmake/ZelCommon/ZelCommonTargets.cmake"
check "pkg-config file names the install prefix" grep -qx "prefix=$PREFIX" "$LIBDIR/pkgconfig/zel_common.pc"
check "tool installed" test -x "$PREFIX/bin/zel"

# ---------------------------------------------------------------------------
step "exported symbols"
nm -D --defined-only -C "$LIBDIR/libzel_common.so.1.0.0" | cut -d' ' -f3- | sort -u >"$WORK/exported.txt"
echo "$(wc -l <"$WORK/exported.txt") dynamic symbols defined"
check "no internal symbol exported" bash -c "! grep -E 'Zel::internal|anonymous namespace|ZelTest' '$WORK/exported.txt'"
check "only the Zel namespace exported" bash -c \
  "! grep -Ev '^((typeinfo|typeinfo name|vtable|VTT|guard variable) for |(non-)?virtual thunk to )?Zel::' '$WORK/exported.txt'"
# Every public class, free function and exported variable named in the headers.
: >"$WORK/missing.txt"
: >"$WORK/checked.txt"
for header in "$ROOT"/src/common/include/zel/*.h; do
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
check "exception classes have exported type information" bash -c \
  "for c in ZelException ZelInternalErrorException ZelInternalException MandatoryAlwaysRunningStartFailedException; do grep -qx \"typeinfo for Zel::\$c\" '$WORK/exported.txt' || { echo \"no typeinfo for \$c\"; exit 1; }; done"

# ---------------------------------------------------------------------------
step "consumer through the CMake package"
must "configure consumer with CMAKE_PREFIX_PATH" cmake -S "$ROOT/tests/consumer" -B "$WORK/consumer-cmake" -G Ninja \
  -DCMAKE_PREFIX_PATH="$PREFIX"
must "build consumer" cmake --build "$WORK/consumer-cmake"
check "consumer (CMake) runs" run_consumer "$WORK/consumer-cmake/consumer"
check "version check rejects 2.0" bash -c "! cmake -S '$ROOT/tests/consumer' -B '$WORK/consumer-v2' -G Ninja \
  -DCMAKE_PREFIX_PATH='$PREFIX' -DZEL_CONSUMER_VERSION=2.0"

step "consumer through pkg-config"
export PKG_CONFIG_PATH=$LIBDIR/pkgconfig
check "pkg-config finds zel_common 1.0.0" test "$(pkg-config --modversion zel_common)" = 1.0.0
echo "pkg-config --cflags --libs zel_common: $(pkg-config --cflags --libs zel_common)"
check "pkg-config puts only include/ on the include path" test "$(pkg-config --cflags-only-I zel_common | tr -d " ")" = "-I$PREFIX/include"
# shellcheck disable=SC2046 # the flags are meant to split
must "build consumer with pkg-config flags" g++ -Wall -Wextra -Werror "$ROOT/tests/consumer/main.cpp" \
  $(pkg-config --cflags --libs zel_common) -o "$WORK/consumer-pc"
check "consumer (pkg-config) runs" run_consumer "$WORK/consumer-pc" LD_LIBRARY_PATH="$LIBDIR"
unset PKG_CONFIG_PATH

step "installed tool"
check "zel runs from the prefix without LD_LIBRARY_PATH" test "$("$PREFIX/bin/zel" strerror -8)" = ZelInvalidArgument
check "zel log writes through the installed library" bash -c \
  "d=\$(mktemp -d '$WORK/toollog.XXXXXX') && TMPDIR=\$d '$PREFIX/bin/zel' log -l 3 -t check packaged && grep -q ' ER check  *packaged\$' \$d/zel.log"

# ---------------------------------------------------------------------------
step "Debian packages"
rm -f "$BUILD"/*.deb
must "cpack -G DEB" bash -c "cd '$BUILD' && cpack -G DEB"
RUNTIME_DEB=$(ls "$BUILD"/libzel-common1_*.deb)
DEV_DEB=$(ls "$BUILD"/libzel-common-dev_*.deb)
TOOLS_DEB=$(ls "$BUILD"/zel-tools_*.deb)
for deb in "$RUNTIME_DEB" "$DEV_DEB" "$TOOLS_DEB"; do
  echo "--- $(basename "$deb")"
  dpkg-deb -f "$deb" Package Version Architecture Depends
  dpkg-deb -c "$deb" | awk '{print "    " $6 ($7 ? " " $7 " " $8 : "")}'
done
field() { dpkg-deb -f "$1" "$2"; }
check "runtime package depends on POCO runtime packages" bash -c \
  "dpkg-deb -f '$RUNTIME_DEB' Depends | grep -q 'libpocofoundation[0-9]*' && dpkg-deb -f '$RUNTIME_DEB' Depends | grep -q 'libpocoxml[0-9]*'"
check "runtime package holds the library, its SONAME link and its doc files only" bash -c \
  "test \"\$(dpkg-deb -c '$RUNTIME_DEB' | awk '\$1 !~ /^d/ {print \$6}' | sort | tr '\n' ' ')\" = \
'./usr/$LIBDIR_REL/libzel_common.so.1 ./usr/$LIBDIR_REL/libzel_common.so.1.0.0 ./usr/share/doc/libzel-common1/changelog.Debian.gz ./usr/share/doc/libzel-common1/copyright '"
check "runtime package has shlibs and the ldconfig trigger, no maintainer scripts" bash -c \
  "d=\$(mktemp -d '$WORK/ctl.XXXXXX') && dpkg-deb -e '$RUNTIME_DEB' \$d && grep -qx 'libzel_common 1 libzel-common1 (>= $(field "$RUNTIME_DEB" Version))' \$d/shlibs && grep -qx 'activate-noawait ldconfig' \$d/triggers && test ! -e \$d/postinst -a ! -e \$d/postrm"
check "library packages are Multi-Arch: same" bash -c \
  "test \"\$(dpkg-deb -f '$RUNTIME_DEB' Multi-Arch)\" = same && test \"\$(dpkg-deb -f '$DEV_DEB' Multi-Arch)\" = same"
check "every package has its copyright (machine-readable) and changelog.Debian.gz" bash -c \
  "for deb in '$RUNTIME_DEB' '$DEV_DEB' '$TOOLS_DEB'; do p=\$(dpkg-deb -f \$deb Package); d=\$(mktemp -d '$WORK/doc.XXXXXX'); dpkg-deb -x \$deb \$d || exit 1; head -1 \$d/usr/share/doc/\$p/copyright | grep -qx 'Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/' || { echo \"\$p: copyright\"; exit 1; }; gzip -cd \$d/usr/share/doc/\$p/changelog.Debian.gz | head -1 | grep -q '^libzel-common (' || { echo \"\$p: changelog\"; exit 1; }; done"
check "maintainer has a real mail domain" bash -c "dpkg-deb -f '$RUNTIME_DEB' Maintainer | grep -Eq '<[^@>]+@[a-z0-9-]+(\\.[a-z0-9-]+)+>' && ! dpkg-deb -f '$RUNTIME_DEB' Maintainer | grep -q localhost"
check "development package depends on the runtime and libpoco-dev" bash -c \
  "dpkg-deb -f '$DEV_DEB' Depends | grep -q 'libzel-common1 (= $(field "$RUNTIME_DEB" Version))' && dpkg-deb -f '$DEV_DEB' Depends | grep -q libpoco-dev"
check "development package holds headers, link, CMake package, pkg-config" bash -c \
  "dpkg-deb -c '$DEV_DEB' > '$WORK/dev.txt' && grep -q ' ./usr/include/zel/LoggingWrapper.h$' '$WORK/dev.txt' && grep -q ' ./usr/$LIBDIR_REL/libzel_common.so -> libzel_common.so.1$' '$WORK/dev.txt' && grep -q ' ./usr/$LIBDIR_REL/cmake/ZelCommon/ZelCommonConfig.cmake$' '$WORK/dev.txt' && grep -q ' ./usr/$LIBDIR_REL/pkgconfig/zel_common.pc$' '$WORK/dev.txt' && ! grep -q 'libzel_common.so.1.0.0' '$WORK/dev.txt'"
check "development package holds the API documentation" bash -c \
  "dpkg-deb -c '$DEV_DEB' | grep -q ' ./usr/share/doc/libzel-common-dev/html/index.html$'"
check "tools package holds zel and its manual page and depends on the runtime" bash -c \
  "dpkg-deb -c '$TOOLS_DEB' | grep -q ' ./usr/bin/zel$' && dpkg-deb -c '$TOOLS_DEB' | grep -q ' ./usr/share/man/man1/zel.1.gz$' && dpkg-deb -f '$TOOLS_DEB' Depends | grep -q 'libzel-common1 (= '"
# lintian: any error fails; warnings and informational tags are shown.
if command -v lintian >/dev/null; then
  lintian --allow-root --fail-on error --display-level ">=warning" "$RUNTIME_DEB" "$DEV_DEB" "$TOOLS_DEB" \
    >"$WORK/lintian.txt" 2>&1
  lintian_status=$?
  sed 's/^/     /' "$WORK/lintian.txt"
  if [ "$lintian_status" -eq 0 ] && ! grep -q '^E: ' "$WORK/lintian.txt"; then
    ok "lintian reports no error"
  else
    not_ok "lintian reports no error"
  fi
else
  not_ok "lintian is not installed (./dev.sh package-check installs it)"
fi
check "apt resolves the packages' dependencies (simulated)" bash -c \
  "apt-get install --simulate --no-install-recommends '$RUNTIME_DEB' '$DEV_DEB' '$TOOLS_DEB' | grep -q '^Inst libzel-common1 '"

DEBROOT=$WORK/debroot
must "extract the packages into a throwaway root" bash -c \
  "dpkg-deb -x '$RUNTIME_DEB' '$DEBROOT' && dpkg-deb -x '$DEV_DEB' '$DEBROOT' && dpkg-deb -x '$TOOLS_DEB' '$DEBROOT'"
check "packaged pkg-config file names /usr" grep -qx "prefix=/usr" "$DEBROOT/usr/$LIBDIR_REL/pkgconfig/zel_common.pc"
must "configure consumer against the extracted tree" cmake -S "$ROOT/tests/consumer" -B "$WORK/consumer-deb" -G Ninja \
  -DCMAKE_PREFIX_PATH="$DEBROOT/usr"
must "build consumer against the extracted tree" cmake --build "$WORK/consumer-deb"
check "consumer (package, CMake) runs" run_consumer "$WORK/consumer-deb/consumer" LD_LIBRARY_PATH="$DEBROOT/usr/$LIBDIR_REL"
# The packaged .pc names /usr; the sysroot variable maps it into the tree.
# shellcheck disable=SC2046
check "consumer (package, pkg-config) builds and runs" bash -c \
  "PKG_CONFIG_PATH='$DEBROOT/usr/$LIBDIR_REL/pkgconfig' PKG_CONFIG_SYSROOT_DIR='$DEBROOT' \
   g++ -Wall -Wextra -Werror '$ROOT/tests/consumer/main.cpp' \$(PKG_CONFIG_PATH='$DEBROOT/usr/$LIBDIR_REL/pkgconfig' PKG_CONFIG_SYSROOT_DIR='$DEBROOT' pkg-config --cflags --libs zel_common) -o '$WORK/consumer-deb-pc' \
   && test \"\$(readelf -d '$WORK/consumer-deb-pc' | grep -c 'libzel_common.so.1')\" = 1"
check "consumer (package, pkg-config) runs" run_consumer "$WORK/consumer-deb-pc" LD_LIBRARY_PATH="$DEBROOT/usr/$LIBDIR_REL"
check "packaged zel runs" bash -c \
  "test \"\$(LD_LIBRARY_PATH='$DEBROOT/usr/$LIBDIR_REL' '$DEBROOT/usr/bin/zel' dn build '' Equipment id 1)\" = Equipment=1"

# ---------------------------------------------------------------------------
step "API documentation"
# Built with the library above (ZEL_INSTALL_API_DOCS; doxygen warnings are errors).
HTML=$BUILD/docs/html
check "HTML generated" test -f "$HTML/index.html"
check "the main page is the README" bash -c "grep -q \"is the C++ utility library that every process\" '$HTML/index.html' && grep -q \"Quick start\" '$HTML/index.html'"
check "no literal /// in the rendered pages" bash -c "! grep -l '///' '$HTML'/*.html"
check "private members left out" bash -c "! grep -lE '_vekLevel|_vekDebugLevel|Private (Member|Attributes)' \$(ls '$HTML'/*.html | grep -v _source.html)"

finish
