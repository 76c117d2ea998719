#!/usr/bin/env bash
# Runs every fuzz target of a DISKHOLD_FUZZ build for the given seconds,
# two at a time, from the committed seeds (fuzz/corpus/<target>), and fails
# on any finding: a crash or failed check, a run over 1 s, a leak, a
# sanitizer report.  New inputs and findings stay in <build-dir>/fuzz-work.
#
#   fuzz/run.sh <build-dir> <seconds per target>
set -uo pipefail
build=$(realpath "$1")
seconds=$2
here=$(cd "$(dirname "$0")" && pwd)
work="$build/fuzz-work"
targets="fuzz_argv fuzz_option_file fuzz_machine_file fuzz_mbr fuzz_gpt fuzz_vmdk_descriptor fuzz_vmdk_sparse fuzz_backup fuzz_volume"
rm -rf "$work"
mkdir -p "$work"

run_one() {
  local t=$1
  mkdir -p "$work/$t/corpus" "$work/$t/findings"
  "$build/fuzz/$t" "$work/$t/corpus" "$here/corpus/$t" -max_total_time="$seconds" -timeout=1 -rss_limit_mb=2048 \
    -detect_leaks=1 -print_final_stats=1 -artifact_prefix="$work/$t/findings/" >"$work/$t/log" 2>&1
  echo $? >"$work/$t/status"
}
export -f run_one
export build seconds here work

printf '%s\n' $targets | xargs -P 2 -I{} bash -c 'run_one {}'

failed=0
for t in $targets; do
  status=$(cat "$work/$t/status" 2>/dev/null || echo missing)
  runs=$(grep -o 'Done [0-9]* runs' "$work/$t/log" | tail -1)
  echo "$t: status $status, ${runs:-no runs}"
  if [[ "$status" != 0 ]]; then
    failed=1
    grep -E 'ERROR|check failed|SUMMARY' "$work/$t/log" | head -5
    ls "$work/$t/findings"
  fi
done
exit $failed
