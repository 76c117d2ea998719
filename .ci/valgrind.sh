#!/usr/bin/env bash
# The end-to-end tests once more with every diskhold run under valgrind's
# memcheck, in a normal (non-sanitizer) build:
#
#   bash .ci/valgrind.sh BUILD_DIR
#
# The entries run two at a time (a run under memcheck costs about a second).
# Left out: the qemu boot tests, which spend their time in qemu, not in
# diskhold.  The randomised invariant test runs 2 layouts instead of 1000,
# and the bad-sector matrix fails each transfer of the command's own drive
# once, at its first sector, instead of at every sector of every drive it
# touches (the sanitizer stage runs it whole).
# Any memcheck error (leaks included) fails the stage; the logs of the runs
# that had one are printed.
set -uo pipefail
build=${1:?usage: valgrind.sh BUILD_DIR}
logs="$build/valgrind-logs"
rm -rf "$logs"
mkdir -p "$logs"
# By its full path: some tests run the program with a PATH of their own.
export DISKHOLD_WRAPPER="$(command -v valgrind) --tool=memcheck --leak-check=full --error-exitcode=197 -q --log-file=$PWD/$logs/%p.log"
export DISKHOLD_RUNS=2
export DISKHOLD_MATRIX_FIRST=1
export DISKHOLD_MACHINE=
# One ctest entry per test, two at a time: the entries take from a common
# queue, so a slow one never leaves the other processor idle for long.
status=0
if ! ctest --test-dir "$build" -j2 -R '^e2e[.]' -E 'BootQemuTest' --output-on-failure >"$logs/ctest.txt" 2>&1; then
  status=1
  cat "$logs/ctest.txt"
fi
# With -q a log holds something only when memcheck found an error.
for f in "$logs"/*.log; do
  if [[ -s $f ]]; then
    echo "== memcheck: $f"
    cat "$f"
    status=1
  fi
done
exit $status
