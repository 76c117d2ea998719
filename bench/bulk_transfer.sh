#!/usr/bin/env bash
# Times the bulk commands save=disk, restore=disk and wipe=disk on a 2 GiB
# disk image of a simulated machine against dd doing the same copy, and
# prints the ratio (diskhold time / dd time; at most 1.00 is the target).
#
# diskhold flushes what it writes before it reports success, so each
# command is also compared with dd told to do the same (conv=fsync).
#
#   bench/bulk_transfer.sh [path/to/diskhold] [work folder] [runs]
set -euo pipefail

diskhold=$(realpath "${1:-build/diskhold}")
work=${2:-$(mktemp -d /tmp/diskhold-bench-XXXXXX)}
runs=${3:-3}
mib=2048

mkdir -p "$work"
cd "$work"
trap 'rm -f "$work"/disk0.img "$work"/backup.bin "$work"/dd.bin' EXIT

echo "diskhold: $diskhold"
echo "work folder: $work, image: $mib MiB, best of $runs runs"
# Data that neither side can skip: no sparse holes, no zero pages.
head -c $((mib * 1024 * 1024)) /dev/urandom > disk0.img
# An MBR with one partition: commands refuse a disk whose partition 1 does
# not exist, so it is written again before each wipe.  Entry 1: type 07
# from sector 2048 to the end.
write_mbr() {
  printf '\x00\xfe\xff\xff\x07\xfe\xff\xff\x00\x08\x00\x00\x00\xf8\x3f\x00' |
    dd of=disk0.img bs=1 seek=446 conv=notrunc status=none
  printf '\x55\xaa' | dd of=disk0.img bs=1 seek=510 conv=notrunc status=none
}
write_mbr
cat > machine.ini <<'INI'
[machine]
computername = BENCH
[drive 0]
image = disk0.img
INI
export DISKHOLD_MACHINE="$work/machine.ini"

# Wall time of one run of a command, in seconds; the command must succeed.
timed() {
  local t0 t1
  sync
  t0=$(date +%s.%N)
  if ! "$@" > /dev/null 2>&1; then
    echo "failed: $*" >&2
    kill -TERM $$
  fi
  t1=$(date +%s.%N)
  echo "$t1 - $t0" | bc -l
}

min() { if [[ -z $1 ]] || (($(echo "$2 < $1" | bc -l))); then echo "$2"; else echo "$1"; fi; }
ratio() { printf '%.2f' "$(echo "$1 / $2" | bc -l)"; }

# Runs the three commands in turn `runs` times, so that all three meet the
# same state of the page cache and of the writeback, and reports the best
# time of each.  The third argument prepares each round.
compare() {
  local name=$1 ours=$2 plain=$3 synced=$4 prepare=$5
  local a="" b="" c=""
  for ((i = 0; i < runs; i++)); do
    eval "$prepare"
    a=$(min "$a" "$(timed $ours)")
    eval "$prepare"
    b=$(min "$b" "$(timed $plain)")
    eval "$prepare"
    c=$(min "$c" "$(timed $synced)")
  done
  printf '%-13s diskhold %6.3fs   dd %6.3fs (ratio %s)   dd conv=fsync %6.3fs (ratio %s)\n' \
    "$name" "$a" "$b" "$(ratio "$a" "$b")" "$c" "$(ratio "$a" "$c")"
}

dh="$diskhold"
compare "save=disk" "$dh /save=disk /nohdr /filename=backup.bin /silent" \
  "dd if=disk0.img of=dd.bin bs=1M" "dd if=disk0.img of=dd.bin bs=1M conv=fsync" ":"
cmp -s disk0.img backup.bin || { echo "save=disk: the backup differs from the disk" >&2; exit 1; }

compare "restore=disk" "$dh /restore=disk /filename=backup.bin /confirm /silent" \
  "dd if=dd.bin of=disk0.img bs=1M conv=notrunc" "dd if=dd.bin of=disk0.img bs=1M conv=notrunc,fsync" ":"
cmp -s disk0.img backup.bin || { echo "restore=disk: the disk differs from the backup" >&2; exit 1; }

compare "wipe=disk" "$dh /wipe=disk /confirm /silent" \
  "dd if=/dev/zero of=disk0.img bs=1M count=$mib conv=notrunc" \
  "dd if=/dev/zero of=disk0.img bs=1M count=$mib conv=notrunc,fsync" "write_mbr"
write_mbr
"$diskhold" /wipe=disk /confirm /silent > /dev/null
cmp -s -n $((mib * 1024 * 1024)) disk0.img /dev/zero || { echo "wipe=disk: the disk is not all zeros" >&2; exit 1; }
