#!/usr/bin/env bash
# Runs every fuzz target of a DISKHOLD_FUZZ build, two at a time, from the
# committed seeds (fuzz/corpus/<target>), and fails on any finding: a crash
# or failed check, a hang, a leak, a sanitizer report.  New inputs and
# findings stay in <build-dir>/fuzz-work; a finding is fixed and then
# committed as a seed of its target, so that every later run meets it first.
#
#   fuzz/run.sh <build-dir> <seconds per target> [target...]
#                                   random runs for a while, of the targets named (else all)
#   fuzz/run.sh <build-dir> --fixed [scale]        what CI runs
#
# The timed form is for a developer's machine: each run draws its own
# random seed, goes as far as the machine's speed allows and stops a run
# over 1 s.  The fixed form gives the same verdict for the same commit on
# any machine: every target starts from its seeds in the order of their
# names, with libFuzzer's seed 1, for the number of executions in the table
# below (times `scale`, default 1), and only a run over 30 s counts as a
# hang.  Its closing lines name each target's executions.
set -uo pipefail
build=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
work="$build/fuzz-work"
targets="fuzz_commands fuzz_argv fuzz_option_file fuzz_machine_file fuzz_mbr fuzz_gpt fuzz_vmdk_descriptor fuzz_vmdk_grains fuzz_backup fuzz_volume"

# Executions per target in the fixed form: 20 to 40 s each on a 2-core
# machine with a second target beside it.
declare -A fixed_runs=(
  [fuzz_commands]=8000 [fuzz_argv]=380000 [fuzz_option_file]=240000 [fuzz_machine_file]=450000
  [fuzz_mbr]=430000 [fuzz_gpt]=250000 [fuzz_vmdk_descriptor]=33000 [fuzz_vmdk_grains]=190000
  [fuzz_backup]=20000 [fuzz_volume]=240000
)

if [[ "${2:-}" == "--fixed" ]]; then
  mode=fixed
  scale=${3:-1}
else
  mode=timed
  seconds=$2
  if (($# > 2)); then
    for t in "${@:3}"; do
      [[ " $targets " == *" $t "* ]] || { echo "fuzz: no target $t (targets: $targets)" >&2; exit 2; }
    done
    targets="${*:3}"
  fi
fi
for t in $targets; do rm -rf "${work:?}/$t"; done
mkdir -p "$work"

run_one() {
  local t=$1
  mkdir -p "$work/$t/corpus" "$work/$t/findings"
  local limits=(-rss_limit_mb=2048 -detect_leaks=1 -print_final_stats=1)
  if [[ $mode == fixed ]]; then
    # The seeds as a list in name order: a folder would be read in the
    # order the file system keeps, which differs between machines.
    (cd "$here/corpus/$t" && LC_ALL=C ls | sed "s|^|$here/corpus/$t/|" | paste -sd, -) >"$work/$t/seeds"
    # libFuzzer feeds the values of the program's comparisons back into its
    # mutations, and some of them are addresses: the run is repeatable only
    # with the same addresses every time, so address randomisation is off
    # (where the machine lets it be), the environment is the same and the
    # paths on the command line do not depend on where the tree lies.  The
    # corpus is never re-read while the run goes on (-reload=0), since
    # when that happens depends on the clock.
    (cd "$work/$t" && env -i PATH=/usr/bin:/bin $norandom "../../fuzz/$t" corpus -seed_inputs=@seeds -seed=1 \
      -runs="$runs" -reload=0 -timeout=30 -artifact_prefix=findings/ "${limits[@]}" >log 2>&1)
  else
    "$build/fuzz/$t" "$work/$t/corpus" "$here/corpus/$t" -max_total_time="$seconds" -timeout=1 \
      -artifact_prefix="$work/$t/findings/" "${limits[@]}" >"$work/$t/log" 2>&1
  fi
  echo $? >"$work/$t/status"
}
# Address randomisation off for the fixed runs, where the machine allows it.
norandom=""
if [[ $mode == fixed ]]; then
  if setarch "$(uname -m)" -R true 2>/dev/null; then
    norandom="setarch $(uname -m) -R"
  else
    echo "fuzz: address randomisation cannot be turned off here; fixed runs may take other paths on other runs"
  fi
fi
export -f run_one
export build here work mode norandom
export seconds=${seconds:-0}

for t in $targets; do
  runs=$(( ${fixed_runs[$t]} * ${scale:-1} ))
  printf '%s %s\n' "$t" "$runs"
done | xargs -P 2 -L 1 bash -c 'runs=$1 run_one "$0"'

failed=0
for t in $targets; do
  status=$(cat "$work/$t/status" 2>/dev/null || echo missing)
  runs=$(grep -o 'Done [0-9]* runs' "$work/$t/log" | tail -1)
  added=$(grep -o 'new_units_added: *[0-9]*' "$work/$t/log" | grep -o '[0-9]*$')
  echo "$t: status $status, ${runs:-no runs}, ${added:-no} new inputs"
  if [[ "$status" != 0 ]]; then
    failed=1
    grep -E 'ERROR|check failed|SUMMARY' "$work/$t/log" | head -5
    ls "$work/$t/findings"
  fi
done
exit $failed
