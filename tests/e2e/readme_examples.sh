#!/usr/bin/env bash
# The README's examples, run as written on a fresh demo machine.
#
#   bash readme_examples.sh DISKHOLD MAKE_DEMO README.md
#
# Examples are the command lines of the README that start with "diskhold "
# (or "echo TEXT | diskhold ", which gives TEXT as the typed input):
#   - in a table row whose last cell is the exit status the example ends
#     with on the demo machine: | ... | `diskhold /partcount /disk=0` | 3 |
#     (a pipe inside such a cell is written "\|", as Markdown tables need);
#   - on an indented code line, optionally followed by blanks and a comment
#     "# ... exit status N ..." (0 when the comment names none).
# They run in README order on one demo machine in a scratch folder (so that
# a /save= example leaves the file that a later /restore= reads), each with
# answers of 'y' on standard input.  The check fails when an example crashes,
# hangs, trips a sanitizer or ends with another exit status.
set -uo pipefail

exe=${1:?usage: readme_examples.sh DISKHOLD MAKE_DEMO README}
make_demo=${2:?usage: readme_examples.sh DISKHOLD MAKE_DEMO README}
readme=${3:?usage: readme_examples.sh DISKHOLD MAKE_DEMO README}
limit=${DISKHOLD_RUN_LIMIT:-60}

exe=$(cd "$(dirname "$exe")" && pwd)/$(basename "$exe")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$make_demo" "$work/demo" >/dev/null || { echo "readme_examples: make_demo failed" >&2; exit 1; }
export DISKHOLD_MACHINE="$work/demo/machine.ini"
yes y 2>/dev/null | head -n 1000 >"$work/answers"

# In a table cell the pipe of an echo example is written "\|".
table_row='^\|.*`((echo [^`]+ \\\| )?diskhold [^`]*)`.*\|[[:space:]]*(-?[0-9]+)[[:space:]]*\|[[:space:]]*$'
code_line='^    ((echo [^|]+ \| )?diskhold [^#]*[^#[:space:]])([[:space:]]+#(.*))?$'

passed=0
failed=0
line_number=0
while IFS= read -r line || [[ -n $line ]]; do
  line_number=$((line_number + 1))
  if [[ $line =~ $table_row ]]; then
    example=${BASH_REMATCH[1]//\\|/|}
    expected=${BASH_REMATCH[3]}
  elif [[ $line =~ $code_line ]]; then
    example=${BASH_REMATCH[1]}
    comment=${BASH_REMATCH[4]:-}
    expected=0
    if [[ $comment =~ exit\ status\ (-?[0-9]+) ]]; then expected=${BASH_REMATCH[1]}; fi
  else
    continue
  fi

  input="$work/answers"
  command=$example
  if [[ $example =~ ^echo\ ([^|]+)\ \|\ (diskhold .*)$ ]]; then
    printf '%s\n' "${BASH_REMATCH[1]}" >"$work/typed"
    input="$work/typed"
    command=${BASH_REMATCH[2]}
  fi
  read -r -a words <<<"$command"
  args=("${words[@]:1}")

  (cd "$work" && timeout "$limit" "$exe" "${args[@]}" <"$input" >"$work/out" 2>"$work/err")
  status=$?

  problems=()
  if ((status == 124)); then
    problems+=("timed out after ${limit}s")
  elif ((status != expected)); then
    problems+=("exit status $status, the README says $expected")
  fi
  if grep -q -e 'Sanitizer' -e 'runtime error:' "$work/err"; then problems+=("sanitizer report"); fi

  if ((${#problems[@]} == 0)); then
    passed=$((passed + 1))
    echo "ok    README.md:$line_number  $example"
  else
    failed=$((failed + 1))
    echo "FAIL  README.md:$line_number  $example"
    for problem in "${problems[@]}"; do echo "      $problem"; done
    tail -n 8 "$work/out" | sed -e 's/^/      out: /'
    head -n 8 "$work/err" | sed -e 's/^/      err: /'
  fi
done <"$readme"

echo "$passed passed, $failed failed"
if ((passed + failed < 20)); then
  echo "readme_examples: only $((passed + failed)) examples found in $readme" >&2
  exit 1
fi
((failed == 0))
