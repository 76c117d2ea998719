#!/usr/bin/env bash
# The end-to-end tests once more with every diskhold run under valgrind's
# memcheck, in a normal (non-sanitizer) build:
#
#   bash .ci/valgrind.sh BUILD_DIR
#
# Two shards run side by side (a run under memcheck costs about a second).
# Left out: the qemu boot tests, which spend their time in qemu, not in
# diskhold.  The randomised invariant test runs 2 layouts instead of 1000.
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
export DISKHOLD_MACHINE=
filter='-BootQemuTest.*'
shards=2
pids=()
for ((i = 0; i < shards; i++)); do
  GTEST_TOTAL_SHARDS=$shards GTEST_SHARD_INDEX=$i "$build/tests/e2e_tests" --gtest_brief=1 "--gtest_filter=$filter" \
    >"$logs/shard$i.txt" 2>&1 &
  pids+=($!)
done
status=0
for ((i = 0; i < shards; i++)); do
  if ! wait "${pids[$i]}"; then
    status=1
    cat "$logs/shard$i.txt"
  fi
done
# With -q a log holds something only when memcheck found an error.
for f in "$logs"/*.log; do
  if [[ -s $f ]]; then
    echo "== memcheck: $f"
    cat "$f"
    status=1
  fi
done
exit $status
