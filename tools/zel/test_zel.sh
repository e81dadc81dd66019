#!/usr/bin/env bash
# test_zel.sh ZEL AREA - tests of the zel command-line tool, run by CTest
# (one test per AREA: usage, log, dn, xpath, config, strerror, manual).
#
# Each case runs the binary and compares its exit status, its standard output
# and its standard error with what is expected. The log cases point TMPDIR at
# a fresh directory each, so nothing is written outside the test's own
# temporary tree.
set -u
ZEL=$1
AREA=$2
MANPAGE=$(cd "$(dirname "$0")/../../docs" && pwd)/zel.1

WORK=$(mktemp -d "${TMPDIR:-/tmp}/zel-tool-test.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
# The tool's own environment: no logging settings leak in from outside.
unset ZEL_LOGGING_FNAME ZEL_LOGGING_LEVEL ZEL_LOGGING_FMAXSIZE ZEL_LOGGING_FMAXCOUNT TAV_ENV
export TMPDIR="$WORK"

passed=0
failed=0
fail() {
  failed=$((failed + 1))
  printf 'FAIL %s\n' "$1"
  shift
  printf '     %s\n' "$@"
}

# expect NAME STATUS STDOUT STDERR -- ARGS...
#   STDOUT: the exact output (without the final newline), or "~TEXT" when the
#           output must contain TEXT.
#   STDERR: "" when nothing may be written to standard error, "~TEXT" when it
#           must contain TEXT.
# Standard input comes from $STDIN (empty by default).
STDIN=""
expect() {
  local name=$1 want_status=$2 want_out=$3 want_err=$4
  shift 5
  local status
  printf '%s' "$STDIN" | timeout 20 "$ZEL" "$@" >"$WORK/out" 2>"$WORK/err"
  status=$?
  local out err
  out=$(cat "$WORK/out")
  err=$(cat "$WORK/err")
  if [ "$status" -ne "$want_status" ]; then
    fail "$name" "exit status $status, expected $want_status" "stdout: $out" "stderr: $err"
    return
  fi
  if [ "${want_out:0:1}" = "~" ]; then
    if [[ "$out" != *"${want_out:1}"* ]]; then
      fail "$name" "stdout lacks '${want_out:1}'" "stdout: $out"
      return
    fi
  elif [ "$out" != "$want_out" ]; then
    fail "$name" "stdout: '$out'" "expected: '$want_out'"
    return
  fi
  if [ -z "$want_err" ]; then
    if [ -n "$err" ]; then
      fail "$name" "unexpected stderr: $err"
      return
    fi
  elif [[ "$err" != *"${want_err:1}"* ]]; then
    fail "$name" "stderr lacks '${want_err:1}'" "stderr: $err"
    return
  fi
  passed=$((passed + 1))
}

# check NAME CONDITION-COMMAND... - a plain assertion.
check() {
  local name=$1
  shift
  if "$@"; then passed=$((passed + 1)); else fail "$name" "failed: $*"; fi
}

test_usage() {
  expect "no command shows usage and fails" 2 "" "~Usage: zel COMMAND" -- 
  expect "--help" 0 "~Usage: zel COMMAND" "" -- --help
  expect "-h" 0 "~Exit status: 0 done, 1 negative answer" "" -- -h
  expect "help" 0 "~strerror CODE" "" -- help
  expect "help dn is dn --help" 0 "~Usage: zel dn validate" "" -- help dn
  expect "--version" 0 "~zel (libzel_common) " "" -- --version
  expect "-V" 0 "~zel (libzel_common) " "" -- -V
  expect "--help lists --version" 0 "~-V, --version" "" -- --help
  expect "unknown command" 2 "" "~zel: unknown command 'frob'" -- frob
  local command
  for command in log dn xpath config strerror; do
    expect "$command --help" 0 "~Usage: zel $command" "" -- "$command" --help
  done
  expect "dn validate --help" 0 "~Usage: zel dn validate" "" -- dn validate --help
  expect "xpath build -h" 0 "~Usage: zel xpath split" "" -- xpath build -h
  expect "config get --help" 0 "~Usage: zel config get" "" -- config get --help
}

# The file line of a record: time stamp, tag, function in 25 columns, message.
STAMP='[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{1,3}[+-][0-9]{2}:[0-9]{2}'

# fresh_log_dir - makes a new empty log directory, exports it as TMPDIR and
# leaves its path in $dir.
fresh_log_dir() {
  dir=$(mktemp -d "$WORK/log.XXXXXX")
  export TMPDIR="$dir"
}

# log_is DIR EXPECTED-LINES... - zel.log in DIR holds exactly these records
# (each given as "TAG FUNCTION MESSAGE" in the file's own spacing).
log_is() {
  local file="$1/zel.log"
  shift
  if [ ! -f "$file" ]; then
    echo "no $file" >&2
    return 1
  fi
  if grep -Evq "^$STAMP " "$file"; then
    echo "lines without a time stamp in $file:" >&2
    cat "$file" >&2
    return 1
  fi
  local expected="" line actual
  for line in "$@"; do expected+="$line"$'\n'; done
  actual=$(sed -E "s/^$STAMP //" "$file"; echo x)
  actual=${actual%x}
  if [ "$actual" != "$expected" ]; then
    printf 'zel.log holds:\n%sexpected:\n%s' "$actual" "$expected" >&2
    return 1
  fi
}

test_log() {
  local dir
  fresh_log_dir
  expect "log writes one record" 0 "" "" -- log hello world
  check "record at level 6, function zel, words joined" \
    log_is "$dir" "IN zel                       hello world"

  fresh_log_dir
  expect "log -l -t" 0 "" "" -- log -l 3 -t signal "Failed to write signal. Errno 32"
  expect "log --level= --function=" 0 "" "" -- log --level=4 --function=main warned
  expect "log -lNAME" 0 "" "" -- log -lnotice noted
  expect "log level tag" 0 "" "" -- log -l EM emergency
  expect "log level long name" 0 "" "" -- log --level warning --function x w
  check "levels, tags and functions as given" log_is "$dir" \
    "ER signal                    Failed to write signal. Errno 32" \
    "WA main                      warned" \
    "NO zel                       noted" \
    "EM zel                       emergency" \
    "WA x                         w"

  fresh_log_dir
  expect "log message is not a format" 0 "" "" -- log '%s %n %d %%'
  expect "log -- ends options" 0 "" "" -- log -- -l 3
  expect "log empty message" 0 "" "" -- log ""
  check "text written as given" log_is "$dir" \
    "IN zel                       %s %n %d %%" \
    "IN zel                       -l 3" \
    "IN zel                       "

  fresh_log_dir
  STDIN=$'first line\nsecond line\n\nlast line without newline'
  expect "log reads standard input" 0 "" "" -- log -l 5 -t reader
  STDIN=""
  check "one record per input line" log_is "$dir" \
    "NO reader                    first line" \
    "NO reader                    second line" \
    "NO reader                    " \
    "NO reader                    last line without newline"

  # Line breaks end records, other control characters are escaped: no input
  # can start a record of its own or reach a terminal showing the file.
  fresh_log_dir
  expect "forged record" 0 "" "" -- log $'first\n2026-01-01T00:00:00.000+00:00 EM kernel   forged'
  expect "message lines" 0 "" "" -- log -t lines $'one\n\nthree\n'
  expect "control characters" 0 "" "" -- log $'bell\a cr\r esc\e[2J tab\t c1\xc2\x9b del\x7f'
  expect "control characters in the function name" 0 "" "" -- log -t $'f\n\e' fn
  check "one harmless record per line" log_is "$dir" \
    "IN zel                       first" \
    "IN zel                       2026-01-01T00:00:00.000+00:00 EM kernel   forged" \
    "IN lines                     one" \
    "IN lines                     " \
    "IN lines                     three" \
    'IN zel                       bell\x07 cr\r esc\x1b[2J tab\t c1\xc2\x9b del\x7f' \
    "$(printf 'IN %-25s %s' 'f\n\x1b' fn)"

  fresh_log_dir
  STDIN=$'crlf\r\nnul\x01\x1b]0;title\x07\n'
  expect "control characters on standard input" 0 "" "" -- log
  STDIN=""
  check "standard input escaped" log_is "$dir" \
    'IN zel                       crlf\r' \
    'IN zel                       nul\x01\x1b]0;title\x07'

  # A line longer than a record is cut; the rest of it is skipped, the next
  # line is a record of its own.
  fresh_log_dir
  local long
  long=$(head -c 2000 /dev/zero | tr '\0' 'L')
  STDIN="${long}"$'\nnext\n'"${long}"
  expect "long input lines" 0 "" "" -- log
  STDIN=""
  check "long lines cut at 799 characters" log_is "$dir" \
    "IN zel                       ${long:0:799}" \
    "IN zel                       next" \
    "IN zel                       ${long:0:799}"
  fresh_log_dir
  expect "long message cut" 0 "" "" -- log "$long"
  check "long message cut at 799 characters" log_is "$dir" "IN zel                       ${long:0:799}"

  # Standard input is read in bounded memory: 64 MiB without a line break.
  if [ -x /usr/bin/time ]; then
    fresh_log_dir
    head -c 67108864 /dev/zero | tr '\0' 'y' >"$WORK/huge"
    /usr/bin/time -f '%M' -o "$WORK/rss" "$ZEL" log -t huge <"$WORK/huge"
    check "64 MiB line read in less than 40 MiB" test "$(cat "$WORK/rss")" -lt 40960
    check "64 MiB line gives one record of 799 characters" \
      test "$(sed -E "s/^$STAMP IN huge +//" "$dir/zel.log" | tr -d '\n' | wc -c)" -eq 799
    rm -f "$WORK/huge"
  fi

  # Debug records go through the trace path: tag TR, "zel:<line>", admitted
  # from level 8 on.
  fresh_log_dir
  expect "debug record dropped at the default level" 0 "" "" -- log -l debug dropped
  check "no debug record, no file" test ! -e "$dir/zel.log"
  ZEL_LOGGING_LEVEL=8 expect "debug record" 0 "" "" -- log -l debug -t dbg $'one\ntwo'
  ZEL_LOGGING_LEVEL=8 expect "level 8" 0 "" "" -- log -l 8 eight
  STDIN=$'in 1\nin\r2'
  ZEL_LOGGING_LEVEL=8 expect "level TR from standard input" 0 "" "" -- log --level=TR
  STDIN=""
  ZEL_LOGGING_LEVEL=8 expect "level 6 at level 8" 0 "" "" -- log -l 6 info
  check "debug records in the trace format" log_is "$dir" \
    "TR zel                     :1     - dbg                       one" \
    "TR zel                     :2     - dbg                       two" \
    "TR zel                     :1     - zel                       eight" \
    "TR zel                     :1     - zel                       in 1" \
    'TR zel                     :2     - zel                       in\r2' \
    "IN zel                       info"

  fresh_log_dir
  expect "log with empty standard input" 0 "" "" -- log
  check "no record, no file" test ! -e "$dir/zel.log"

  # The level filter of the framework's processes.
  fresh_log_dir
  ZEL_LOGGING_LEVEL=3 expect "record above ZEL_LOGGING_LEVEL" 0 "" "" -- log -l 4 dropped
  ZEL_LOGGING_LEVEL=3 expect "record at ZEL_LOGGING_LEVEL" 0 "" "" -- log -l 3 kept
  ZEL_LOGGING_LEVEL=abc expect "ZEL_LOGGING_LEVEL=abc means 0" 0 "" "" -- log -l 1 dropped
  ZEL_LOGGING_LEVEL=abc expect "level 0 passes level 0" 0 "" "" -- log -l 0 kept0
  check "only admitted records written" log_is "$dir" \
    "ER zel                       kept" \
    "EM zel                       kept0"

  # The file named by ZEL_LOGGING_FNAME.
  fresh_log_dir
  mkdir "$dir/sub"
  ZEL_LOGGING_FNAME="$dir/sub/app.log" expect "ZEL_LOGGING_FNAME" 0 "" "" -- log elsewhere
  check "record in the named file" grep -Eq "^$STAMP IN zel +elsewhere$" "$dir/sub/app.log"
  check "not in TMPDIR" test ! -e "$dir/zel.log"

  # Rotation by size, as in every process.
  fresh_log_dir
  STDIN=$(for i in $(seq 1 40); do echo "rotation record $i of forty, padded to make it longer"; done)
  ZEL_LOGGING_FMAXSIZE=600 ZEL_LOGGING_FMAXCOUNT=3 expect "log rotates" 0 "" "" -- log -t rotate
  STDIN=""
  check "live file present" test -s "$dir/zel.log"
  check "numbered files made" compgen -G "$dir/zel.log.[0-9]*" >/dev/null
  check "newest record in the live file" grep -q "rotation record 40 of forty" "$dir/zel.log"
  check "live file near the size limit" test "$(stat -c %s "$dir/zel.log")" -lt 1200

  # Bad input: status 2, a message, and nothing written.
  fresh_log_dir
  expect "level out of range" 2 "" "~zel log: invalid level '70'" -- log -l 70 x
  expect "level 9" 2 "" "~use 0-7 or emerg" -- log -l 9 x
  expect "negative level" 2 "" "~invalid level '-1'" -- log -l -1 x
  expect "non-numeric level" 2 "" "~invalid level 'loud'" -- log --level=loud x
  expect "level missing" 2 "" "~option '-l' needs a LEVEL" -- log -l
  expect "function missing" 2 "" "~option '--function' needs a TAG" -- log --function
  expect "unknown option" 2 "" "~unknown option '--bogus'" -- log --bogus x
  check "nothing written on bad input" test ! -e "$dir/zel.log"

  # logger(1)'s options where the two tools meet.
  fresh_log_dir
  expect "-p LEVEL" 0 "" "" -- log -p err plain
  expect "-p FACILITY.LEVEL" 0 "" "" -- log -p local3.warning faclevel
  expect "-p number" 0 "" "" -- log -p 5 numeric
  expect "-p user.4" 0 "" "" -- log -p user.4 facnumber
  expect "--priority=" 0 "" "" -- log --priority=daemon.crit longopt
  expect "-t TAG" 0 "" "" -- log -t myjob tagged
  expect "--tag=" 0 "" "" -- log --tag=job2 tagged2
  printf 'from file 1\nfrom file 2\n' >"$WORK/msg.txt"
  expect "-f FILE" 0 "" "" -- log -t filer -f "$WORK/msg.txt"
  STDIN=$'from stdin\n'
  expect "-f - reads standard input" 0 "" "" -- log -t dash -f -
  STDIN=""
  expect "-s also to standard error" 0 "" "~tee: to both" -- log -s -t tee "to both"
  expect "-- ends options" 0 "" "" -- log -t dd -- -p err
  check "logger options give level, tag and lines" log_is "$dir" \
    "ER zel                       plain" \
    "WA zel                       faclevel" \
    "NO zel                       numeric" \
    "WA zel                       facnumber" \
    "CR zel                       longopt" \
    "IN myjob                     tagged" \
    "IN job2                      tagged2" \
    "IN filer                     from file 1" \
    "IN filer                     from file 2" \
    "IN dash                      from stdin" \
    "IN tee                       to both" \
    "IN dd                        -p err"
  fresh_log_dir
  expect "-p debug dropped at the default level" 0 "" "" -- log -p debug dropped
  expect "-l 7 is debug, dropped at the default level" 0 "" "" -- log -l 7 dropped
  ZEL_LOGGING_LEVEL=8 expect "-p user.debug is the debug trace" 0 "" "" -- log -p user.debug -t dbg traced
  ZEL_LOGGING_LEVEL=8 expect "-p 7 is the debug trace" 0 "" "" -- log -p 7 -t dbg seven
  check "debug priority writes trace records" log_is "$dir" \
    "TR zel                     :1     - dbg                       traced" \
    "TR zel                     :1     - dbg                       seven"
  # The spellings the first version had for other things are gone: -f names
  # a file, never a function, and a file that is not there is an error.
  fresh_log_dir
  expect "-f names a file" 2 "" "~zel log: cannot read '$WORK/no-such.txt'" -- log -f "$WORK/no-such.txt"
  expect "-f with a message" 2 "" "~a MESSAGE and -f FILE exclude each other" -- log -f "$WORK/msg.txt" words
  expect "-f directory" 2 "" "~not a regular file" -- log -f "$WORK"
  expect "-p bad facility" 2 "" "~invalid priority 'nosuch.err'" -- log -p nosuch.err x
  expect "-p bad level" 2 "" "~invalid priority 'user.loud'" -- log -p user.loud x
  expect "-t missing" 2 "" "~option '-t' needs a TAG" -- log -t
  expect "-p missing" 2 "" "~option '-p' needs a [FACILITY.]LEVEL" -- log -p
  check "nothing written on bad logger options" test ! -e "$dir/zel.log"
  fresh_log_dir
  expect "-- logs the word show" 0 "" "" -- log -- show
  check "the word show as a record" log_is "$dir" "IN zel                       show"

  TMPDIR="$WORK/does-not-exist" expect "missing log directory" 2 "" \
    "~log directory '$WORK/does-not-exist' (TMPDIR) does not exist" -- log x
  touch "$WORK/plain-file"
  TMPDIR="$WORK/plain-file" expect "log directory is a file" 2 "" "~is not a directory" -- log x
  fresh_log_dir
  ZEL_LOGGING_FNAME="$dir/missing/x.log" expect "missing directory of ZEL_LOGGING_FNAME" 2 "" \
    "~(ZEL_LOGGING_FNAME) does not exist" -- log x
  # A log file that cannot be opened: status 2, not a record on stderr.
  fresh_log_dir
  mkdir "$dir/app.log"
  ZEL_LOGGING_FNAME="$dir/app.log" expect "ZEL_LOGGING_FNAME names a directory" 2 "" \
    "~zel log: cannot write the log file '$dir/app.log': Is a directory" -- log x
  STDIN=$'a\nb'
  ZEL_LOGGING_FNAME="$dir/app.log" expect "directory as log file, standard input" 2 "" "~Is a directory" -- log
  STDIN=""
  ZEL_LOGGING_FNAME="$dir/app.log" ZEL_LOGGING_LEVEL=8 expect "directory as log file, debug record" 2 "" \
    "~Is a directory" -- log -l debug x
  ZEL_LOGGING_FNAME="$dir/app.log" expect "directory as log file, record dropped by level" 0 "" "" -- log -l debug x
  # A FIFO planted as the log file: refused at once, never waited on.
  fresh_log_dir
  mkfifo "$dir/zel.log"
  TMPDIR="$dir" expect "FIFO as log file" 2 "" "~cannot write the log file '$dir/zel.log': not a regular file" -- log x
  # A file-size limit the records cannot fit in: status 2 once the wrapper
  # reports them unwritten, and the file holds no partial record.
  fresh_log_dir
  STDIN=$(for i in $(seq 1 100); do printf 'record number %03d of a run that does not fit\n' "$i"; done)
  (ulimit -f 2 && TMPDIR="$dir" expect "file-size limit" 2 "" \
    "~zel log: records could not be written to the log file '$dir/zel.log'" -- log)
  STDIN=""
  # Every line but a last one the limit cut is a whole record.
  check "file-size limit: whole records only" bash -c \
    "[ \$(stat -c %s '$dir/zel.log') -le 2048 ] && awk 'NR > 1 { print prev } { prev = \$0 }' '$dir/zel.log' | grep -q . && ! awk 'NR > 1 { print prev } { prev = \$0 }' '$dir/zel.log' | grep -v -q -E '^[0-9]{4}-.* IN zel +record number [0-9]{3} of a run that does not fit\$'"
  # In a sticky directory everybody may write to, a symlink another user
  # planted as the log file is not followed: status 2, and its target stays
  # untouched.
  if [ "$(id -u)" -eq 0 ] && command -v setpriv >/dev/null; then
    fresh_log_dir
    chmod 711 "$WORK" && chmod 1777 "$dir"
    : >"$WORK/target"
    setpriv --reuid=65534 --regid=65534 --clear-groups ln -s "$WORK/target" "$dir/zel.log"
    TMPDIR="$dir" expect "another user's symlink in a shared directory" 2 "" \
      "~records could not be written to the log file '$dir/zel.log'" -- log x
    check "another user's symlink: target untouched" test ! -s "$WORK/target"
  fi
  if [ "$(id -u)" -ne 0 ]; then
    mkdir "$WORK/read-only" && chmod 555 "$WORK/read-only"
    TMPDIR="$WORK/read-only" expect "read-only log directory" 2 "" "~is not writable" -- log x
  fi
}

test_dn() {
  expect "valid DN" 0 "valid: ManagedElement=1,Equipment=1" "" -- dn validate "ManagedElement=1,Equipment=1"
  expect "well-formed edge cases" 0 $'valid: \nvalid:   \nvalid: ManagedElement=1, Equipment.serial = A\\2C\nvalid: A=' "" \
    -- dn validate "" "  " 'ManagedElement=1, Equipment.serial = A\2C' "A="
  expect "malformed DNs" 1 $'invalid: a=1\ninvalid: A=1,\ninvalid: A=1+B=2' "" -- dn validate "a=1" "A=1," "A=1+B=2"
  expect "one invalid among valid" 1 $'valid: A=1\ninvalid: A=1,\nvalid: B=2' "" -- dn validate "A=1" "A=1," "B=2"
  expect "validate -q" 1 "" "" -- dn validate -q "A=1" "x"
  expect "validate -q all valid" 0 "" "" -- dn validate --quiet "A=1"
  expect "validate -- then a DN" 1 "invalid: -q" "" -- dn validate -- -q
  expect "validate without DN" 2 "" "~zel dn validate: expected at least one DN" -- dn validate
  expect "validate unknown option" 2 "" "~unknown option '-x'" -- dn validate -x A=1
  # Linear time: values that make a backtracking engine run for ever.
  expect "long realistic DN" 0 "valid: ManagedElement=1,GNBDUFunction=1,NRCellDU=NR01gNodeBRadio00087-1" "" \
    -- dn validate "ManagedElement=1,GNBDUFunction=1,NRCellDU=NR01gNodeBRadio00087-1"
  local long_value
  long_value=$(head -c 100000 /dev/zero | tr '\0' 'x')
  expect "very long value failing at the end" 1 "" "" -- dn validate -q "A=${long_value}\""

  expect "split" 0 $'class: Equipment\nid: 2\nparent: ManagedElement=1\nleaf class: Equipment' "" \
    -- dn split "ManagedElement=1,Equipment.serial=2"
  expect "split trims class and leaf class differently" 0 \
    $'class: Equipment\nid: 3\nparent: X=1\nleaf class: Equipment ' "" -- dn split "X=1,Equipment .k=3"
  expect "split one RDN" 0 $'class: A\nid: 1\nparent: \nleaf class: A' "" -- dn split "A=1"
  expect "split malformed DN says so" 1 $'class: \nid: AB\nparent: \nleaf class: ' \
    "~zel dn split: 'AB' is not a well-formed DN" -- dn split "AB"
  expect "split without DN" 2 "" "~zel dn split: expected one DN, got 0 arguments" -- dn split
  expect "split with two DNs" 2 "" "~expected one DN, got 2 arguments" -- dn split A=1 B=2

  expect "build without parent, default key" 0 "Equipment=1" "" -- dn build "" Equipment equipmentId 1
  expect "build, key id in any case" 0 "ManagedElement=1,Equipment=1" "" -- dn build ManagedElement=1 Equipment ID 1
  expect "build, named key" 0 "ManagedElement=1,Equipment.serial=1" "" \
    -- dn build ManagedElement=1 Equipment serial 1
  expect "build malformed result" 1 "a=1" "~zel dn build: 'a=1' is not a well-formed DN" -- dn build "" a id 1
  expect "build with too few arguments" 2 "" "~expected PARENT CLASS KEY VALUE, got 3 arguments" \
    -- dn build ManagedElement=1 Equipment id
  expect "dn without action" 2 "" "~missing action" -- dn
  expect "dn unknown action" 2 "" "~unknown action 'check'" -- dn check A=1
}

test_xpath() {
  expect "split" 0 $'type: U\nkey value: 2\nparent: /a:T[k=1]' "" -- xpath split "/a:T[k=1]/U[x=2]"
  expect "split keeps prefix and quotes" 0 $'type: a:T\nkey value: \'x\'\nparent: ' "" -- xpath split "/a:T[k='x']"
  expect "split trims" 0 $'type: U\nkey value: 7\nparent: /A[k=1]' "" -- xpath split "/A[k=1]/ U [n= 7 ]"
  expect "split path without key" 0 $'type: B\nkey value: 1\nparent: /A[k=1]' "" -- xpath split "/A[k=1]/B"
  expect "split value with blank and colon" 0 $'type: T\nkey value: \'a b:c\'\nparent: ' "" -- xpath split "/T[k='a b:c']"
  expect "split path ending in /" 1 $'type: \nkey value: \nparent: /a' "~zel xpath split: '/a/' is not an instance path" \
    -- xpath split "/a/"
  expect "split empty path" 1 $'type: \nkey value: \nparent: ' "~'' is not an instance path" -- xpath split ""
  expect "split nonsense" 1 $'type: nonsense\nkey value: \nparent: ' \
    "~zel xpath split: 'nonsense' is not an instance path" -- xpath split nonsense
  local bad
  for bad in "T[k=1]" "//T" "/T[k=1]x" "/T[k=]" "/T[=1]" "/T[k]" "/T[k=1" "/a b" "/:T" "/p:" "/p:q:T" "/T[k=a=b]" \
    "/T[k=1][j=2]" "/T]" "/A[k=1]//B"; do
    expect "split rejects $bad" 1 "~type: " "~'$bad' is not an instance path" -- xpath split "$bad"
  done
  expect "split without path" 2 "" "~zel xpath split: expected one PATH, got 0 arguments" -- xpath split

  expect "build" 0 "/X[id=1]/ns:T[id=2]" "" -- xpath build ns "/X[id=1]" T id 2
  expect "build without value" 0 "/X[id=1]/ns:T" "" -- xpath build ns "/X[id=1]" T id ""
  expect "build root step" 0 "T[id=2]" "" -- xpath build "" "" T id 2
  expect "build without type" 2 "" "~zel xpath build: TYPE must not be empty" -- xpath build ns /X "" id 2
  expect "build with too many arguments" 2 "" "~got 6 arguments" -- xpath build a b c d e f
  expect "xpath without action" 2 "" "~missing action" -- xpath
  expect "xpath unknown action" 2 "" "~unknown action 'get'" -- xpath get /A
}

test_config() {
  local file="$WORK/router.xml"
  cat >"$file" <<'XML'
<?xml version="1.0"?>
<router>
  <port>830</port>
  <peer><port>831</port><name>north</name></peer>
  <name>main <!-- comment -->router</name>
</router>
XML
  expect "get from a file" 0 $'830\n831' "" -- config get "$file" port
  expect "get text only, comments skipped" 0 $'north\nmain router' "" -- config get "$file" name
  expect "get from XML text" 0 "abc" "" -- config get '<r><v>a<!--c-->b<x>y</x>c</v></r>' v
  expect "get of a white-space element" 0 "" "" -- config get '<r><v>   </v></r>' v
  expect "tag not found" 1 "" "" -- config get "$file" missing
  expect "bad XML" 2 "" "~zel config get: cannot load '<a>': " -- config get '<a>' a
  expect "missing file" 2 "" "~zel config get: no such file 'nosuch.xml'" -- config get nosuch.xml a
  expect "directory" 2 "" "~is not a file" -- config get "$WORK" a
  printf '<a><b>' >"$WORK/broken.xml"
  expect "file with bad XML" 2 "" "~cannot load '$WORK/broken.xml'" -- config get "$WORK/broken.xml" a
  if [ "$(id -u)" -ne 0 ]; then
    cp "$file" "$WORK/secret.xml" && chmod 000 "$WORK/secret.xml"
    expect "unreadable file" 2 "" "~is not readable" -- config get "$WORK/secret.xml" port
  fi
  # Hostile documents: nesting far beyond the limit is refused before the
  # tree is built, and many equal elements are printed in linear time.
  awk 'BEGIN { for (i = 0; i < 300000; i++) printf "<a>"; printf "x"; for (i = 0; i < 300000; i++) printf "</a>" }' \
    >"$WORK/deep.xml"
  expect "300 000 levels refused" 2 "" \
    "~cannot load '$WORK/deep.xml': elements nested deeper than the limit of 1000 levels (line 1, column 3000)" \
    -- config get "$WORK/deep.xml" a
  awk 'BEGIN { printf "<r>"; for (i = 0; i < 32000; i++) printf "<v>value %d</v>", i; printf "</r>" }' >"$WORK/many.xml"
  local started elapsed
  started=$(date +%s%N)
  timeout 20 "$ZEL" config get "$WORK/many.xml" v >"$WORK/many.out"
  elapsed=$((($(date +%s%N) - started) / 1000000))
  check "32 000 equal elements printed" test "$(wc -l <"$WORK/many.out")" -eq 32000
  check "in document order" test "$(sed -n '1p;32000p' "$WORK/many.out" | tr '\n' ,)" = "value 0,value 31999,"
  # Linear: a few milliseconds; the quadratic walk took over 20 s. The bound
  # leaves room for valgrind and a loaded machine.
  check "32 000 equal elements in under 10 s (took ${elapsed} ms)" test "$elapsed" -lt 10000
  expect "get with one argument" 2 "" "~expected FILE-OR-XML TAG, got 1 argument" -- config get "$file"
  expect "config without action" 2 "" "~missing action" -- config
  expect "config unknown action" 2 "" "~unknown action 'set'" -- config set "$file" port 1
}

test_strerror() {
  expect "ok" 0 "ZelOk" "" -- strerror 0
  expect "positive code" 0 "ZelNotActive" "" -- strerror 2
  expect "negative code" 0 "ZelInvalidArgument" "" -- strerror -8
  expect "last code" 0 "ZelTimeOut" "" -- strerror -11
  expect "-- before a code" 0 "ZelFailure" "" -- strerror -- -1
  expect "unknown code 3" 1 "Unknown return code" "" -- strerror 3
  expect "unknown code -12" 1 "Unknown return code" "" -- strerror -12
  expect "smallest 32-bit code" 1 "Unknown return code" "" -- strerror -2147483648
  expect "non-numeric" 2 "" "~zel strerror: invalid CODE 'abc'" -- strerror abc
  expect "trailing garbage" 2 "" "~invalid CODE '1x'" -- strerror 1x
  expect "empty" 2 "" "~invalid CODE ''" -- strerror ""
  expect "beyond 32 bits" 2 "" "~invalid CODE '2147483648'" -- strerror 2147483648
  expect "no code" 2 "" "~expected one CODE, got 0 arguments" -- strerror
  expect "two codes" 2 "" "~expected one CODE, got 2 arguments" -- strerror 1 2
}

# record_line STAMP TAG FUNCTION MESSAGE - a record as the wrapper writes it.
record_line() { printf '%s %2s %-25s %s\n' "$1" "$2" "$3" "$4"; }

# ids_in_order FILE PREFIX COUNT - FILE holds the records "PREFIX-1" to
# "PREFIX-COUNT", each once and in this order.
ids_in_order() {
  grep -o "rec $2-[0-9]*" "$1" | cut -d- -f2 | awk -v n="$3" -v w="$2" '
    { if ($1 != prev + 1) { bad++; if (bad < 5) printf "%s: %s after %s\n", w, $1, prev > "/dev/stderr" } prev = $1 }
    END { if (prev != n) { printf "%s: last %s, expected %s\n", w, prev, n > "/dev/stderr"; exit 1 } exit bad > 0 }'
}

test_show() {
  # Many numbered files, made by the wrapper itself: zel.log.10 comes after
  # zel.log.9 (a glob sorts it before zel.log.2).
  fresh_log_dir
  seq 1 1500 | sed 's/^/rec s-/; s/$/ padding the record to about a hundred bytes in all/' >"$WORK/input"
  ZEL_LOGGING_FMAXSIZE=1000 ZEL_LOGGING_FMAXCOUNT=100 "$ZEL" log -t shower -f "$WORK/input"
  check "at least 12 numbered files" test "$(ls "$dir" | grep -c '^zel\.log\.[0-9]*$')" -ge 12
  check "a glob gives the records out of order" bash -c "! cat '$dir'/zel.log* | grep -o 'rec s-[0-9]*' | cut -d- -f2 | sort -nc 2>/dev/null"
  "$ZEL" log show >"$WORK/shown"
  check "show: status 0" test $? -eq 0
  check "show: every record once, in order" ids_in_order "$WORK/shown" s 1500
  check "show: the lines as written" bash -c "[ \"\$(grep -c -E '^$STAMP IN shower +rec s-[0-9]+ padding' '$WORK/shown')\" -eq 1500 ]"
  "$ZEL" log show "$dir" >"$WORK/shown-dir"
  check "show DIR reads zel.log in DIR" cmp -s "$WORK/shown" "$WORK/shown-dir"
  "$ZEL" log show "$dir/zel.log" >"$WORK/shown-path"
  check "show PATH reads that log" cmp -s "$WORK/shown" "$WORK/shown-path"

  # ZEL_LOGGING_FNAME names the log, as for the wrapper.
  fresh_log_dir
  mkdir "$dir/sub"
  ZEL_LOGGING_FNAME="$dir/sub/app.log" "$ZEL" log -t named "in app.log"
  ZEL_LOGGING_FNAME="$dir/sub/app.log" expect "show follows ZEL_LOGGING_FNAME" 0 "~named                     in app.log" "" -- log show

  # Filters, on records written by hand: time stamps with fractions that are
  # no milliseconds, another offset, a trace record and lines that are no
  # records.
  fresh_log_dir
  {
    record_line "2026-03-01T12:00:00.9+01:00" IN f1 "first"
    record_line "2026-03-01T12:00:01.42+01:00" ER f2 "second \"quoted\" \\ back"
    echo "a raw record without a stamp"
    record_line "2026-03-01T12:00:02.512+01:00" WA f1 "third"
    printf '%s TR %-24s:%-5s - %-25s %s\n' "2026-03-01T12:00:03.0+01:00" zel 7 dbg "fourth"
    printf '2026-03-01T12:00:04.1+01:00 CR cut in the mid'
  } >"$dir/zel.log"
  expect "show all, the cut last line too" 0 "$(cat "$dir/zel.log")" "" -- log show
  # The cut last line still has its stamp and tag: a record at level 2.
  expect "--level err" 0 "$(printf '%s\n%s\n%s' "$(sed -n 2p "$dir/zel.log")" "a raw record without a stamp" "$(sed -n 6p "$dir/zel.log")")" "" -- log show --level err
  expect "--level 4" 0 "~WA f1" "" -- log show --level 4
  expect "--level debug shows the trace record" 0 "~fourth" "" -- log show --level=debug
  expect "--level TR" 0 "~fourth" "" -- log show --level TR
  expect "--function" 0 "$(printf '%s\n%s\n%s' "$(sed -n 1p "$dir/zel.log")" "a raw record without a stamp" "$(sed -n 4p "$dir/zel.log")")" "" -- log show --function f1
  expect "--function of a trace record" 0 "~fourth" "" -- log show --function dbg --level debug
  expect "--grep on the line" 0 "$(sed -n 4p "$dir/zel.log")" "" -- log show --grep 'thi(r)d'
  expect "--grep judges raw lines too" 0 "a raw record without a stamp" "" -- log show --grep raw
  # Whole seconds: .999 in --since does not drop the record written .42
  # into the same second (42 microseconds).
  expect "--since takes the whole second" 0 "~second" "" -- log show --since 2026-03-01T12:00:01.999+01:00
  check "--since drops earlier seconds" bash -c "! '$ZEL' log show --since 2026-03-01T12:00:01.999+01:00 | grep -q first"
  expect "--until in UTC" 0 "$(printf '%s\n%s\n%s' "$(sed -n 1,3p "$dir/zel.log")")" "" -- log show --until 2026-03-01T11:00:01Z
  expect "--since and --until" 0 "$(printf '%s\n%s' "a raw record without a stamp" "$(sed -n 4p "$dir/zel.log")")" "" \
    -- log show --since "2026-03-01 11:00:02+00:00" --until 2026-03-01T12:00:02+01:00 --level info
  expect "nothing matches: status 1" 1 "" "" -- log show --grep nothing-like-this
  local offset2 offset3
  offset2=$(sed -n 1p "$dir/zel.log" | wc -c)
  offset3=$((offset2 + $(sed -n 2p "$dir/zel.log" | wc -c)))
  expect "--json" 0 "$(printf '%s\n' \
    '{"time":"2026-03-01T12:00:01.42+01:00","level":3,"function":"f2","message":"second \"quoted\" \\ back","file":"'"$dir"'/zel.log","offset":'"$offset2"'}')" \
    "" -- log show --json --function f2 --grep second
  expect "--json of a line that is no record" 0 \
    '{"time":null,"level":null,"function":null,"message":"a raw record without a stamp","file":"'"$dir"'/zel.log","offset":'"$offset3"'}' \
    "" -- log show --json --grep raw
  expect "--json of a trace record" 0 \
    '~"level":7,"function":"dbg","message":"fourth","source":"zel:7"' "" -- log show --json --level debug --grep fourth

  # The renumbering after 999999: the wrapper moves the numbered files down
  # to 1, 2, ...; show still gives every record once and in order.
  fresh_log_dir
  local big
  big=$(printf 'x%.0s' $(seq 1 1100))
  { echo "rec w-1 $big"; echo "rec w-2 $big"; } | sed "s/^/$(date +%Y-%m-%dT%H:%M:%S.1+00:00) IN z                         /" >"$dir/zel.log.999998"
  { echo "rec w-3 $big"; echo "rec w-4 $big"; } | sed "s/^/$(date +%Y-%m-%dT%H:%M:%S.1+00:00) IN z                         /" >"$dir/zel.log.999999"
  seq 5 60 | sed 's/^/rec w-/; s/$/ after the wrap, padded to about a hundred bytes in all/' >"$WORK/input"
  ZEL_LOGGING_FMAXSIZE=1000 ZEL_LOGGING_FMAXCOUNT=100 "$ZEL" log -t w -f "$WORK/input"
  check "renumbered after 999999" test -e "$dir/zel.log.1" -a ! -e "$dir/zel.log.999999"
  "$ZEL" log show >"$WORK/shown"
  check "show after the wrap: every record once, in order" ids_in_order "$WORK/shown" w 60

  # Bad input.
  fresh_log_dir
  expect "show: no log" 1 "" "~zel log show: no log file '$dir/zel.log'" -- log show
  expect "show: missing directory" 2 "" "~the log directory '$WORK/nowhere' does not exist" -- log show "$WORK/nowhere/zel.log"
  expect "show: bad level" 2 "" "~invalid level 'loud'" -- log show --level loud
  expect "show: bad time stamp" 2 "" "~invalid time stamp '2026-13-01'" -- log show --since 2026-13-01
  expect "show: bad expression" 2 "" "~invalid --grep expression '('" -- log show --grep '('
  expect "show: unknown option" 2 "" "~unknown option '--cursor'" -- log show --cursor x
  expect "show: value missing" 2 "" "~option '--since' needs a value" -- log show --since
  expect "show: two paths" 2 "" "~more than one PATH" -- log show a b
  expect "show --help" 0 "~Usage: zel log show" "" -- log show --help
}

# generate ID SECONDS PER10MS - prints the records "rec ID-1", "rec ID-2",
# ... (about 100 bytes each in the file), PER10MS of them every 10 ms for
# SECONDS, and leaves how many in $WORK/count.ID.
generate() {
  local id=$1 n=0 k
  local end=$(($(date +%s%N) / 1000000 + $2 * 1000))
  while [ $(($(date +%s%N) / 1000000)) -lt "$end" ]; do
    for ((k = 0; k < $3; k++)); do
      n=$((n + 1))
      printf 'rec %s-%d payload padded to make records about a hundred bytes\n' "$id" "$n"
    done
    sleep 0.01
  done
  echo "$n" >"$WORK/count.$id"
}

# wait_for_lines FILE COUNT SECONDS - until FILE has COUNT lines; false when
# it has not after SECONDS.
wait_for_lines() {
  local i
  for ((i = 0; i < $3 * 10; i++)); do
    [ -f "$1" ] && [ "$(wc -l <"$1")" -ge "$2" ] && return 0
    sleep 0.1
  done
  echo "$1: $(wc -l <"$1" 2>/dev/null) lines, expected $2" >&2
  return 1
}

# stop_pid PID - SIGTERM, then its exit status (the caller's child).
stop_pid() {
  kill -TERM "$1" 2>/dev/null
  wait "$1"
}

test_follow() {
  local follow writers=() w total status
  # Four writer processes at a 64 KiB size limit for 20 s while follow runs;
  # follow is killed with SIGKILL twice and started again with its cursor.
  # Its output is appended to a file, so not even the batch in flight at the
  # kill may show up twice.
  fresh_log_dir
  export ZEL_LOGGING_FMAXSIZE=65536
  "$ZEL" log follow --cursor "$WORK/cursor" >>"$WORK/followed" 2>>"$WORK/follow.err" &
  follow=$!
  for w in 1 2 3 4; do
    (generate "f$w" 20 10 | "$ZEL" log -t "writer$w") &
    writers+=($!)
  done
  sleep 6
  kill -KILL "$follow"
  wait "$follow" 2>/dev/null
  "$ZEL" log follow --cursor "$WORK/cursor" >>"$WORK/followed" 2>>"$WORK/follow.err" &
  follow=$!
  sleep 7
  kill -KILL "$follow"
  wait "$follow" 2>/dev/null
  "$ZEL" log follow --cursor "$WORK/cursor" >>"$WORK/followed" 2>>"$WORK/follow.err" &
  follow=$!
  wait "${writers[@]}"
  unset ZEL_LOGGING_FMAXSIZE
  total=0
  for w in 1 2 3 4; do total=$((total + $(cat "$WORK/count.f$w"))); done
  check "follow: the writers rotated the log" test "$(ls "$dir" | grep -c '^zel\.log\.[0-9]*$')" -ge 3
  check "follow: all $total records printed" wait_for_lines "$WORK/followed" "$total" 30
  stop_pid "$follow"
  status=$?
  check "follow: SIGTERM ends it with status 0" test "$status" -eq 0
  check "follow: exactly $total lines" test "$(wc -l <"$WORK/followed")" -eq "$total"
  for w in 1 2 3 4; do
    check "follow: writer $w's records exactly once, in order" ids_in_order "$WORK/followed" "f$w" "$(cat "$WORK/count.f$w")"
  done
  check "follow: nothing on standard error" test ! -s "$WORK/follow.err"
  printf 'follow: %s records of 4 writers in 20 s, %s numbered files made\n' "$total" \
    "$(ls "$dir" | sed -n 's/^zel\.log\.\([0-9]*\)$/\1/p' | sort -n | tail -1)"

  # Appended to a file, the cursor is saved before each batch with the
  # output's size: a batch cut short by a kill is cut off and printed again,
  # one that was not written is printed, one that was is not.
  fresh_log_dir
  rm -f "$WORK/cursor" "$WORK/followed"
  printf 'rec k-1 one\nrec k-2 two\nrec k-3 three\n' | "$ZEL" log -t k
  "$ZEL" log follow --cursor "$WORK/cursor" >>"$WORK/followed" &
  follow=$!
  wait_for_lines "$WORK/followed" 3 10
  stop_pid "$follow"
  check "follow: the cursor holds the batch's output sizes" grep -q "^output 0 $(stat -c %s "$WORK/followed")\$" "$WORK/cursor"
  cp "$WORK/followed" "$WORK/followed.whole"
  cp "$WORK/cursor" "$WORK/cursor.saved"
  truncate -s 50 "$WORK/followed"
  "$ZEL" log follow --cursor "$WORK/cursor" >>"$WORK/followed" &
  follow=$!
  wait_for_lines "$WORK/followed" 3 10
  sleep 0.3
  stop_pid "$follow"
  check "follow: a batch cut by a kill is printed again, whole, once" cmp -s "$WORK/followed" "$WORK/followed.whole"
  cp "$WORK/cursor.saved" "$WORK/cursor"
  : >"$WORK/followed"
  "$ZEL" log follow --cursor "$WORK/cursor" >>"$WORK/followed" &
  follow=$!
  wait_for_lines "$WORK/followed" 3 10
  sleep 0.3
  stop_pid "$follow"
  check "follow: a batch never written is printed" cmp -s "$WORK/followed" "$WORK/followed.whole"
  cp "$WORK/cursor.saved" "$WORK/cursor"
  "$ZEL" log follow --cursor "$WORK/cursor" >>"$WORK/followed" &
  follow=$!
  sleep 0.5
  stop_pid "$follow"
  check "follow: a batch written is not printed again" cmp -s "$WORK/followed" "$WORK/followed.whole"

  # The renumbering after 999999 while follow runs: nothing printed twice.
  fresh_log_dir
  rm -f "$WORK/cursor" "$WORK/followed"
  local big
  big=$(printf 'x%.0s' $(seq 1 1100))
  echo "$(date +%Y-%m-%dT%H:%M:%S.1+00:00) IN z                         rec r-1 $big" >"$dir/zel.log.999998"
  echo "$(date +%Y-%m-%dT%H:%M:%S.1+00:00) IN z                         rec r-2 $big" >"$dir/zel.log.999999"
  "$ZEL" log follow --cursor "$WORK/cursor" >>"$WORK/followed" &
  follow=$!
  check "follow: the numbered files first" wait_for_lines "$WORK/followed" 2 10
  seq 3 80 | sed 's/^/rec r-/; s/$/ across the wrap, padded to about a hundred bytes/' |
    ZEL_LOGGING_FMAXSIZE=1000 ZEL_LOGGING_FMAXCOUNT=100 "$ZEL" log -t r
  check "follow: renumbered after 999999" test -e "$dir/zel.log.1" -a ! -e "$dir/zel.log.999999"
  wait_for_lines "$WORK/followed" 80 10
  stop_pid "$follow"
  check "follow across the wrap: exactly once, in order" ids_in_order "$WORK/followed" r 80
  check "follow across the wrap: 80 lines" test "$(wc -l <"$WORK/followed")" -eq 80

  # Files pruned while follow was not running: it says how many files and
  # bytes it skipped, and goes on with the oldest file kept.
  fresh_log_dir
  rm -f "$WORK/cursor" "$WORK/followed"
  export ZEL_LOGGING_FMAXSIZE=2000 ZEL_LOGGING_FMAXCOUNT=3
  seq 1 100 | sed 's/^/rec g-/; s/$/ before the gap, padded to about a hundred bytes/' | "$ZEL" log -t g
  "$ZEL" log follow --cursor "$WORK/cursor" >>"$WORK/followed" 2>"$WORK/follow.err" &
  follow=$!
  wait_for_lines "$WORK/followed" 100 10
  stop_pid "$follow"
  seq 101 1000 | sed 's/^/rec g-/; s/$/ after the stop, padded to about a hundred bytes/' | "$ZEL" log -t g
  "$ZEL" log follow --cursor "$WORK/cursor" >>"$WORK/followed" 2>"$WORK/follow.err" &
  follow=$!
  local first
  for _ in $(seq 1 100); do grep -q 'rec g-1000 ' "$WORK/followed" && break; sleep 0.1; done
  stop_pid "$follow"
  unset ZEL_LOGGING_FMAXSIZE ZEL_LOGGING_FMAXCOUNT
  first=$(grep -o 'rec g-[0-9]*' "$WORK/followed" | sed -n 101p | cut -d- -f2)
  check "follow after pruning: records 1-100, then from the oldest kept to 1000" bash -c \
    "[ \"\$(grep -o 'rec g-[0-9]*' '$WORK/followed' | cut -d- -f2 | tr '\n' ' ')\" = \"\$(seq 1 100 | tr '\n' ' ')\$(seq $first 1000 | tr '\n' ' ')\" ]"
  check "follow after pruning: a gap" test "$first" -gt 101
  # The size of the gap: the records skipped, at the length of the lines
  # printed after it.
  local line_length missing reported_files reported_bytes
  line_length=$(sed -n '$p' "$WORK/followed" | wc -c)
  missing=$(((first - 101) * line_length))
  reported_files=$(sed -n 's/.*skipped \([0-9]*\) files\{0,1\}, .*/\1/p' "$WORK/follow.err")
  reported_bytes=$(sed -n 's/.*skipped [0-9]* files\{0,1\}, \(about \)\{0,1\}\([0-9]*\) bytes.*/\2/p' "$WORK/follow.err")
  check "follow after pruning: the gap on standard error" grep -q \
    "zel log follow: the log files after the cursor were pruned before they were read: skipped [0-9]* files\?, \(about \)\?[0-9]* bytes" \
    "$WORK/follow.err"
  printf 'follow after pruning: reported %s files, %s bytes; skipped %s records, about %s bytes\n' \
    "${reported_files:-none}" "${reported_bytes:-none}" $((first - 101)) "$missing"
  check "follow after pruning: files counted" test "${reported_files:-0}" -ge 1
  check "follow after pruning: bytes within a third of the $missing skipped (${reported_bytes:-none})" \
    test "${reported_bytes:-0}" -ge $((missing * 2 / 3)) -a "${reported_bytes:-0}" -le $((missing * 4 / 3))

  # Files made and pruned while follow was stopped (SIGSTOP) were never
  # opened: it says so when it runs again, and goes on.
  fresh_log_dir
  rm -f "$WORK/cursor" "$WORK/followed"
  export ZEL_LOGGING_FMAXSIZE=2000 ZEL_LOGGING_FMAXCOUNT=3
  seq 1 100 | sed 's/^/rec p-/; s/$/ before the stop, padded to about a hundred bytes/' | "$ZEL" log -t p
  "$ZEL" log follow >>"$WORK/followed" 2>"$WORK/follow.err" &
  follow=$!
  wait_for_lines "$WORK/followed" 100 10
  kill -STOP "$follow"
  seq 101 1000 | sed 's/^/rec p-/; s/$/ while stopped, padded to about a hundred bytes/' | "$ZEL" log -t p
  kill -CONT "$follow"
  for _ in $(seq 1 100); do grep -q 'rec p-1000 ' "$WORK/followed" && break; sleep 0.1; done
  stop_pid "$follow"
  unset ZEL_LOGGING_FMAXSIZE ZEL_LOGGING_FMAXCOUNT
  local printed gap
  printed=$(grep -c 'rec p-' "$WORK/followed")
  gap=$(grep -o 'rec p-[0-9]*' "$WORK/followed" | cut -d- -f2 | awk '$1 != prev + 1 { n++ } { prev = $1 } END { print n + 0 }')
  printf 'follow stopped: %s of 1000 records printed, %s gap(s); %s\n' "$printed" "$gap" "$(cat "$WORK/follow.err")"
  check "follow stopped: records before and after the gap in order, once" bash -c \
    "grep -o 'rec p-[0-9]*' '$WORK/followed' | cut -d- -f2 | sort -nc && [ \"\$(grep -o 'rec p-[0-9]*' '$WORK/followed' | sort | uniq -d)\" = '' ]"
  check "follow stopped: the last record printed" grep -q 'rec p-1000 ' "$WORK/followed"
  check "follow stopped: the pruned files reported" grep -q \
    "zel log follow: [0-9]* log files\? w[a-z]* pruned before \(it\|they\) could be read: about [0-9]* bytes skipped" "$WORK/follow.err"

  # Bad input.
  fresh_log_dir
  echo "something else" >"$WORK/not-a-cursor"
  expect "follow: not a cursor file" 2 "" "~'$WORK/not-a-cursor' is not a cursor file of zel log" -- \
    log follow --cursor "$WORK/not-a-cursor"
  printf 'zel log cursor 1\nposition 1 2\n' >"$WORK/bad-cursor"
  expect "follow: damaged cursor" 2 "" "~the cursor file '$WORK/bad-cursor' is damaged" -- log follow --cursor "$WORK/bad-cursor"
  expect "follow: missing directory" 2 "" "~does not exist" -- log follow "$WORK/nowhere/zel.log"
  expect "follow: --json takes no value" 2 "" "~more than one PATH" -- log follow --json x y
  expect "follow --help" 0 "~Usage: zel log follow" "" -- log follow --help
}

# A real rsyslogd for the ship tests: in the foreground, with its own
# configuration, work directory and pid file under $WORK, listening with
# imrelp on 127.0.0.1:$RELP_PORT and writing what it receives from the
# app-name zelship to $WORK/received.log (severity, time, app-name, message).
# It never reads the system's configuration nor writes under /var/log.
RSYSLOGD_PID=""
write_rsyslog_config() {
  mkdir -p "$WORK/rsyslog-work"
  cat >"$WORK/rsyslog.conf" <<EOF
global(workDirectory="$WORK/rsyslog-work")
# imrelp acknowledges a message once it is in the main queue: a direct queue
# writes it to the file before that, so a stopped server loses nothing it
# acknowledged.
main_queue(queue.type="Direct")
module(load="imrelp")
input(type="imrelp" port="$RELP_PORT" address="127.0.0.1")
template(name="shipped" type="string" string="%syslogseverity% %timereported:::date-rfc3339% %app-name% %msg%\n")
if \$app-name == "zelship" then action(type="omfile" file="$WORK/received.log" template="shipped")
EOF
}

port_in_use() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

start_rsyslogd() {
  rm -f "$WORK/rsyslogd.pid"
  rsyslogd -n -f "$WORK/rsyslog.conf" -i "$WORK/rsyslogd.pid" >>"$WORK/rsyslogd.out" 2>&1 &
  RSYSLOGD_PID=$!
  local i
  for ((i = 0; i < 100; i++)); do
    port_in_use "$RELP_PORT" && return 0
    sleep 0.1
  done
  echo "rsyslogd does not listen on $RELP_PORT:" >&2
  cat "$WORK/rsyslogd.out" >&2
  return 1
}

# Stops our rsyslogd by its pid and waits for it.
stop_rsyslogd() {
  [ -n "$RSYSLOGD_PID" ] || return 0
  kill -TERM "$RSYSLOGD_PID" 2>/dev/null
  wait "$RSYSLOGD_PID" 2>/dev/null
  RSYSLOGD_PID=""
}

# received_ids ID - the numbers of writer ID's records rsyslogd wrote, one a
# line, in the order received.
received_ids() { grep -o "rec $1-[0-9]* " "$WORK/received.log" | sed 's/.*-//; s/ //'; }

test_ship() {
  if ! command -v rsyslogd >/dev/null || ! compgen -G "/usr/lib/*/rsyslog/imrelp.so" >/dev/null; then
    fail "ship: rsyslogd with imrelp is needed (./dev.sh test installs rsyslog and rsyslog-relp)"
    return
  fi
  trap 'stop_rsyslogd; rm -rf "$WORK"' EXIT
  local i
  for ((i = 0; i < 50; i++)); do
    RELP_PORT=$((20000 + RANDOM % 30000))
    port_in_use "$RELP_PORT" || break
  done
  write_rsyslog_config
  check "ship: rsyslogd accepts the configuration" rsyslogd -N1 -f "$WORK/rsyslog.conf"

  # The server is not there yet: ship says so and keeps trying.
  fresh_log_dir
  "$ZEL" log -t early "before the server"
  "$ZEL" log ship --relp "127.0.0.1:$RELP_PORT" --cursor "$WORK/ship-cursor" --tag zelship 2>"$WORK/ship.err" &
  local ship=$!
  sleep 1
  check "ship: server down reported" grep -q "zel log ship: cannot connect to 127.0.0.1:$RELP_PORT: Connection refused; trying again" "$WORK/ship.err"
  check "ship: rsyslogd starts" start_rsyslogd
  check "ship: the record arrives once the server is up" wait_for_lines "$WORK/received.log" 1 10
  check "ship: reconnection reported" grep -q "connected to 127.0.0.1:$RELP_PORT again" "$WORK/ship.err"
  local stamp
  stamp=$(sed -E 's/^([0-9-]{10}T[0-9:]{8})\.[0-9]{1,3}([+-][0-9:]{5}) .*/\1\2/' "$dir/zel.log")
  check "ship: severity, the record's own time, app-name and the line as the message" \
    test "$(cat "$WORK/received.log")" = "6 $stamp zelship $(cat "$dir/zel.log")"
  "$ZEL" log -p err -t early "an error"
  "$ZEL" log -p crit -t early "critical"
  check "ship: the next records" wait_for_lines "$WORK/received.log" 3 10
  check "ship: severities 3 and 2" test "$(cut -d' ' -f1 "$WORK/received.log" | tr '\n' ' ')" = "6 3 2 "
  stop_pid "$ship"
  check "ship: SIGTERM ends it with status 0" test $? -eq 0

  # Four writers at 64 KiB for 20 s while ship runs; rsyslogd is restarted
  # once and the shipper killed once. Nothing may be lost; records are sent
  # twice only within the stated window.
  fresh_log_dir
  : >"$WORK/received.log"
  rm -f "$WORK/ship-cursor"
  local writers=() w total status
  export ZEL_LOGGING_FMAXSIZE=65536
  "$ZEL" log ship --relp "127.0.0.1:$RELP_PORT" --cursor "$WORK/ship-cursor" --tag zelship 2>"$WORK/ship.err" &
  ship=$!
  for w in 1 2 3 4; do
    (generate "s$w" 20 10 | "$ZEL" log -t "writer$w") &
    writers+=($!)
  done
  sleep 6
  stop_rsyslogd
  sleep 1
  check "ship: rsyslogd starts again" start_rsyslogd
  sleep 5
  kill -KILL "$ship"
  wait "$ship" 2>/dev/null
  "$ZEL" log ship --relp "127.0.0.1:$RELP_PORT" --cursor "$WORK/ship-cursor" --tag zelship 2>>"$WORK/ship.err" &
  ship=$!
  wait "${writers[@]}"
  unset ZEL_LOGGING_FMAXSIZE
  total=0
  for w in 1 2 3 4; do total=$((total + $(cat "$WORK/count.s$w"))); done
  # Every record there (duplicates count too, so a last look makes sure).
  wait_for_lines "$WORK/received.log" "$total" 60
  sleep 1
  stop_pid "$ship"
  status=$?
  check "ship: SIGTERM ends it with status 0 after the run" test "$status" -eq 0
  local lost=0 duplicates count missing
  for w in 1 2 3 4; do
    count=$(cat "$WORK/count.s$w")
    comm -23 <(seq 1 "$count" | sort) <(received_ids "s$w" | sort -u) | sort -n >"$WORK/missing.s$w"
    missing=$(wc -l <"$WORK/missing.s$w")
    [ "$missing" -eq 0 ] || printf 'writer s%s: %s missing, from %s to %s\n' "$w" "$missing" \
      "$(head -1 "$WORK/missing.s$w")" "$(tail -1 "$WORK/missing.s$w")"
    lost=$((lost + missing))
  done
  duplicates=$(($(grep -c 'rec s[1-4]-' "$WORK/received.log") - $(grep -o 'rec s[1-4]-[0-9]* ' "$WORK/received.log" | sort -u | wc -l)))
  printf 'ship: %s records of 4 writers, %s lost, %s sent twice (rsyslogd restarted once, shipper killed once)\n' \
    "$total" "$lost" "$duplicates"
  check "ship: 0 of $total records lost" test "$lost" -eq 0
  # A kill sends again at most the one batch of 1000 acknowledged but not yet
  # saved; the restart of the server at most the records it had taken but not
  # acknowledged, one window of 1000.
  check "ship: at most 2000 sent twice ($duplicates)" test "$duplicates" -le 2000
  stop_rsyslogd

  # Bad input.
  expect "ship: --relp missing" 2 "" "~--relp HOST:PORT is required" -- log ship --cursor "$WORK/c"
  expect "ship: --cursor missing" 2 "" "~--cursor FILE is required" -- log ship --relp 127.0.0.1:1
  expect "ship: bad server" 2 "" "~invalid server 'nohost'" -- log ship --relp nohost --cursor "$WORK/c"
  expect "ship: bad port" 2 "" "~invalid server 'h:70000'" -- log ship --relp h:70000 --cursor "$WORK/c"
  expect "ship: bad tag" 2 "" "~invalid tag 'a b'" -- log ship --relp h:1 --cursor "$WORK/c" --tag "a b"
  expect "ship: no --json" 2 "" "~unknown option '--json'" -- log ship --relp h:1 --cursor "$WORK/c" --json
  expect "ship --help" 0 "~Usage: zel log ship" "" -- log ship --help
}

# The manual page: renders without a warning and documents what the tool
# offers.
test_manual() {
  check "manual page present" test -f "$MANPAGE"
  if command -v man >/dev/null; then
    LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l "$MANPAGE" >"$WORK/manual.txt" 2>"$WORK/manual.err"
    check "manual renders" test -s "$WORK/manual.txt"
    check "manual renders without warnings" test ! -s "$WORK/manual.err"
  else
    printf 'note: man is not installed; rendering not checked\n'
  fi
  local version
  version=$("$ZEL" --version | sed 's/^zel (libzel_common) //')
  check "manual names the tool's version $version" grep -q "^\.TH ZEL 1 .*\"libzel_common $version\"" "$MANPAGE"
  local command
  for command in "log" "log show" "log follow" "log ship" "dn validate" "dn split" "dn build" "xpath split" "xpath build" "config get" "strerror"; do
    check "manual documents zel $command" grep -q "^\.B zel $command\$\|^\.B zel $command \|^\.B $command\$" "$MANPAGE"
  done
  local option
  for option in '\\-V' '\\-\\-version' '\\-h' '\\-\\-help' '\\-l' '\\-\\-level' '\\-f' '\\-\\-function' \
    '\\-p' '\\-\\-priority' '\\-t' '\\-\\-tag' '\\-s' '\\-\\-stderr' '\\-\\-file' '\\-\\-cursor' \
    '\\-\\-relp' '\\-\\-json' '\\-\\-since' '\\-\\-until' '\\-\\-grep' 'ZEL_LOGGING_FNAME' 'TMPDIR'; do
    check "manual mentions $option" grep -q -- "$option" "$MANPAGE"
  done
}

case "$AREA" in
  usage | log | show | follow | ship | dn | xpath | config | strerror | manual) "test_$AREA" ;;
  *)
    echo "usage: $0 ZEL usage|log|show|follow|ship|dn|xpath|config|strerror|manual" >&2
    exit 2
    ;;
esac

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
