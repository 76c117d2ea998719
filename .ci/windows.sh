#!/usr/bin/env bash
# The Windows build, checked under Wine.
#
#   bash .ci/windows.sh MACHINE_FILE
#
# Run from the repository root after the Linux build exists in ./build.
# Cross-builds diskhold.exe and the unit tests with MinGW-w64 into build-win,
# runs the unit tests and the win32 backend tests under Wine, then runs every
# command of tests/wine/commands.txt twice on the simulated machine
# MACHINE_FILE, once with ./build/diskhold and once with diskhold.exe under
# Wine, and compares standard output byte for byte and the exit values.
#
# Exit values: Windows passes the whole 32-bit value on.  The shell sees 8
# bits: the Linux build exits with 1 for a non-zero value whose low 8 bits
# are 0 (512 exits with 1) and with the low 8 bits otherwise, and Wine hands
# a Windows exit value on by the same rule.  Both runs must exit alike, and
# on a line with /result as the printed value says.
# A machine file without a codepage key follows the console, which differs
# between the two runs, so they run on a copy that names code page 65001.
set -euo pipefail

machine=${1:?usage: .ci/windows.sh MACHINE_FILE}
linux_exe=${DISKHOLD_LINUX_EXE:-build/diskhold}
commands=tests/wine/commands.txt
# One run may wait at most this long; a program that hangs is a failure, not
# a stalled CI.
run_limit=${DISKHOLD_RUN_LIMIT:-120}

[[ -f $machine ]] || { echo "windows.sh: no machine file $machine" >&2; exit 2; }
[[ -x $linux_exe ]] || { echo "windows.sh: no Linux build at $linux_exe" >&2; exit 2; }
machine=$(cd "$(dirname "$machine")" && pwd)/$(basename "$machine")
pinned=""
if ! grep -qiE '^[[:space:]]*codepage[[:space:]]*=' "$machine"; then
  # Beside the original, so that its image paths keep their meaning.
  pinned="$(dirname "$machine")/.windows-$(basename "$machine")"
  if grep -qiE '^[[:space:]]*\[machine\]' "$machine"; then
    sed -E '0,/^[[:space:]]*\[[Mm][Aa][Cc][Hh][Ii][Nn][Ee]\]/s//&\ncodepage = 65001/' "$machine" >"$pinned"
  else
    { printf '[machine]\ncodepage = 65001\n\n'; cat "$machine"; } >"$pinned"
  fi
  machine=$pinned
fi
work=""
cleanup() {
  [[ -z $pinned ]] || rm -f "$pinned"
  [[ -z $work ]] || rm -rf "$work"
  if [[ -n ${WINEPREFIX:-} ]]; then wineserver -k >/dev/null 2>&1 || true; fi
}
trap cleanup EXIT
for tool in x86_64-w64-mingw32-g++-posix wine wineserver winepath; do
  command -v "$tool" >/dev/null || { echo "windows.sh: $tool is missing (g++-mingw-w64-x86-64-posix, wine, wine64)" >&2; exit 2; }
done

echo "-- cross-building diskhold.exe"
cmake -S . -B build-win -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake -DDISKHOLD_TESTS=ON >/dev/null
cmake --build build-win -j2

# The win32 backend's own tests use the real Windows calls, so they are built
# here, against the backend library of build-win and its GoogleTest.
gtest_lib=$(find build-win -name libgtest.a -print -quit)
gtest_main_lib=$(find build-win -name libgtest_main.a -print -quit)
[[ -n $gtest_lib && -n $gtest_main_lib ]] || { echo "windows.sh: GoogleTest was not built in build-win" >&2; exit 2; }
x86_64-w64-mingw32-g++-posix -std=c++20 -Wall -Wextra -Werror -O1 -Isrc \
  -I/usr/src/googletest/googletest/include \
  tests/wine/win32_platform_test.cpp build-win/libdiskhold_platform.a "$gtest_main_lib" "$gtest_lib" \
  -static -o build-win/win32_platform_test.exe

# One Wine prefix inside the build, started once: without a booted prefix
# every captured run stalls for seconds.
export WINEPREFIX="$PWD/build-win/wineprefix" WINEDEBUG=-all WINEARCH=win64
mkdir -p "$WINEPREFIX"
# Fails when a server of this prefix already runs, which serves as well.
wineserver -p 2>/dev/null || true
wine wineboot -i </dev/null >/dev/null 2>&1

# Every stage runs even when one before it failed, so that one CI run shows
# all that differs; the script fails at the end.
broken=()

echo "-- unit tests under Wine"
ctest --test-dir build-win --output-on-failure || broken+=("unit tests")

echo "-- win32 backend tests under Wine"
wine build-win/win32_platform_test.exe </dev/null || broken+=("win32 backend tests")
printf 'yn\nsecond line\r\nlast' >build-win/piped-input.txt
DISKHOLD_WIN32_PIPED_INPUT=1 wine build-win/win32_platform_test.exe \
  --gtest_filter='Win32Machine.KeysAndLinesFromPipedInput' <build-win/piped-input.txt ||
  broken+=("win32 backend tests with piped input")

echo "-- Linux and Windows builds on the same machine"
win_machine=$(winepath -w "$machine" 2>/dev/null)
work=$(mktemp -d)

# The value the /result line printed: " Result: N", or "N" alone with
# /silent; the last such line of the output.
printed_result() {
  sed -n -e 's/^ Result: \(-\{0,1\}[0-9][0-9]*\)$/\1/p' -e 's/^\(-\{0,1\}[0-9][0-9]*\)$/\1/p' "$1" | tail -n 1
}

# The exit status a shell sees for a value: its low 8 bits, and 1 for a
# non-zero value whose low 8 bits are 0.
posix_status() {
  local value=$1
  if ((value != 0 && (value & 255) == 0)); then echo 1; else echo $((value & 255)); fi
}

passed=0
failed=0
while IFS= read -r line || [[ -n $line ]]; do
  # '#' at the start of a line or after a blank starts a comment.
  line=${line%%$'\r'}
  [[ $line =~ ^[[:space:]]*# ]] && continue
  line=$(sed -e 's/[[:space:]]#.*$//' <<<"$line")
  read -r -a args <<<"$line"
  ((${#args[@]} > 0)) || continue

  set +e
  DISKHOLD_MACHINE="$machine" timeout "$run_limit" "$linux_exe" "${args[@]}" \
    </dev/null >"$work/linux.out" 2>"$work/linux.err"
  linux_status=$?
  DISKHOLD_MACHINE="$win_machine" timeout "$run_limit" wine build-win/diskhold.exe "${args[@]}" \
    </dev/null >"$work/wine.raw" 2>"$work/wine.err"
  wine_status=$?
  set -e
  # Windows ends lines with CR LF; only the CR of a line end is its own, a
  # lone CR (a progress line rewritten in place) is the program's output.
  sed -e 's/\r$//' "$work/wine.raw" >"$work/wine.out"

  problems=()
  cmp -s "$work/linux.out" "$work/wine.out" || problems+=("standard output differs")
  if ((wine_status == 124 || linux_status == 124)); then problems+=("timed out after ${run_limit}s"); fi
  if ((linux_status != wine_status)); then
    problems+=("exit status: Linux $linux_status, Windows $wine_status")
  fi
  if [[ ${line,,} =~ (^|[[:space:]])[/-]result([[:space:]]|$) ]]; then
    # The whole value, and the status the rule gives it.
    shown=$(printed_result "$work/wine.out")
    if [[ -z $shown ]]; then
      problems+=("no result line printed")
    else
      expected=$(posix_status "$shown")
      if ((linux_status != expected)); then
        problems+=("printed result $shown, Linux exit status $linux_status instead of $expected")
      fi
      if ((wine_status != expected)); then
        problems+=("printed result $shown, Windows exit status $wine_status instead of $expected")
      fi
    fi
  fi

  if ((${#problems[@]} == 0)); then
    passed=$((passed + 1))
    echo "ok    $line"
  else
    failed=$((failed + 1))
    echo "FAIL  $line"
    for problem in "${problems[@]}"; do echo "      $problem"; done
    diff -u --text --label linux --label windows "$work/linux.out" "$work/wine.out" | head -n 40 || true
    if [[ -s $work/wine.err ]]; then
      echo "      Windows standard error:"
      head -n 10 "$work/wine.err" | sed -e 's/^/      /'
    fi
  fi
done <"$commands"

echo "$passed passed, $failed failed"
((failed == 0)) || broken+=("Linux and Windows outputs")
if ((${#broken[@]} > 0)); then
  printf 'windows.sh: failed: %s\n' "${broken[@]}" >&2
  exit 1
fi
