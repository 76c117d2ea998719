#!/usr/bin/env bash
# Times the whole-disk commands against the usual tools on two 2 GiB disk
# images of a simulated machine: one that is 10 % data in random runs (the
# rest holes) and one fully written.  For each command and image it prints
# the best of `runs` times of diskhold and of each peer, the ratio of
# diskhold to each, and diskhold's peak RSS.
#
#   save=disk     vs dd bs=1M (plain, conv=fsync), cp --sparse=always + sync,
#                 qemu-img convert -O raw + sync
#   restore=disk  onto a blank image, vs the same four
#   compare       of the saved file and its copy, vs cmp, qemu-img compare
#   wipe=disk     vs dd from /dev/zero (plain, conv=fsync),
#                 fallocate --punch-hole + sync
#
# diskhold flushes what it writes before it reports success; the peers are
# therefore also timed with their own flush.
#
#   bench/transfer.sh [path/to/diskhold] [work folder] [runs]
set -euo pipefail

diskhold=$(realpath "${1:-build/diskhold}")
work=${2:-$(mktemp -d /tmp/diskhold-bench-XXXXXX)}
runs=${3:-5}
mib=2048
bytes=$((mib * 1024 * 1024))

mkdir -p "$work"
cd "$work"
trap 'rm -f "$work"/*.img "$work"/*.bin' EXIT

echo "diskhold: $diskhold"
echo "work folder: $work, images: $mib MiB, best of $runs runs, load: $(cut -d' ' -f1-3 /proc/loadavg)"

# An MBR with one partition (type 07 from sector 2048 to the end).
write_mbr() {
  printf '\x00\xfe\xff\xff\x07\xfe\xff\xff\x00\x08\x00\x00\x00\xf8\x3f\x00' |
    dd of="$1" bs=1 seek=446 conv=notrunc status=none
  printf '\x55\xaa' | dd of="$1" bs=1 seek=510 conv=notrunc status=none
}

# 10 % of the image in runs of 64 KiB to 4 MiB of random bytes at random
# places (4 KiB aligned); the rest stays a hole.
make_sparse() {
  rm -f "$1"
  truncate -s $bytes "$1"
  python3 - "$1" $bytes <<'PY'
import os, random, sys
path, size = sys.argv[1], int(sys.argv[2])
random.seed(16)
want, done = size // 10, 0
with open(path, "r+b") as f:
    while done < want:
        run = min(random.randrange(16, 1025) * 4096, want - done)
        at = random.randrange(0, (size - run) // 4096) * 4096
        f.seek(at)
        f.write(os.urandom(run))
        done += run
PY
  write_mbr "$1"
}

make_full() {
  head -c $bytes /dev/urandom > "$1"
  write_mbr "$1"
}

blank() { rm -f "$1"; truncate -s $bytes "$1"; }

cat > machine.ini <<'INI'
[machine]
computername = BENCH
[drive 0]
image = src.img
[drive 1]
image = dst.img
INI
export DISKHOLD_MACHINE="$work/machine.ini"

# Wall time of one run of a command line, in seconds; it must succeed.
timed() {
  local t0 t1
  sync
  t0=$(date +%s.%N)
  if ! bash -c "$1" > /dev/null 2>&1; then
    echo "failed: $1" >&2
    kill -TERM $$
  fi
  t1=$(date +%s.%N)
  echo "$t1 - $t0" | bc -l
}
min() { if [[ -z $1 ]] || (($(echo "$2 < $1" | bc -l))); then echo "$2"; else echo "$1"; fi; }
ratio() { printf '%.3f' "$(echo "$1 / $2" | bc -l)"; }
rss() { /usr/bin/time -v bash -c "exec $1" 2>&1 >/dev/null | awk -F': ' '/Maximum resident/ {printf "%.1f MiB", $2 / 1024}'; }

# bench NAME PREPARE OURS PEER... : each command in turn, `runs` rounds,
# every run after PREPARE, so all meet the same state of the page cache and
# the writeback; prints the best times, the ratios and diskhold's peak RSS.
# A peer is "label|command line"; labels starting with '~' are sparse-aware.
bench() {
  local name=$1 prepare=$2 ours=$3
  shift 3
  local -a labels=() cmds=() best=()
  local p
  for p in "$@"; do labels+=("${p%%|*}"); cmds+=("${p#*|}"); best+=(""); done
  local a="" i k
  for ((i = 0; i < runs; i++)); do
    eval "$prepare"
    a=$(min "$a" "$(timed "$ours")")
    for k in "${!cmds[@]}"; do
      eval "$prepare"
      best[k]=$(min "${best[k]}" "$(timed "${cmds[k]}")")
    done
  done
  eval "$prepare"
  printf '  %-13s diskhold %7.3fs  (peak RSS %s)\n' "$name" "$a" "$(rss "$ours")"
  local sparse=""
  for k in "${!cmds[@]}"; do
    printf '      %-26s %7.3fs   diskhold/peer %s\n' "${labels[k]#\~}" "${best[k]}" "$(ratio "$a" "${best[k]}")"
    if [[ ${labels[k]} == \~* ]]; then sparse=$(min "$sparse" "${best[k]}"); fi
  done
  if [[ -n $sparse ]]; then
    printf '      %-26s %7.3fs   diskhold/peer %s\n' "best sparse-aware peer" "$sparse" "$(ratio "$a" "$sparse")"
  fi
}

dh="$diskhold"
for kind in sparse full; do
  if [[ $kind == sparse ]]; then
    echo; echo "== image with 10 % data (the rest holes)"; make_sparse src.img
  else
    echo; echo "== fully written image"; make_full src.img
  fi
  blank dst.img

  bench "save=disk" "rm -f out.bin" \
    "$dh /save=disk /nohdr /filename=out.bin /silent" \
    "dd|dd if=src.img of=out.bin bs=1M status=none" \
    "dd conv=fsync|dd if=src.img of=out.bin bs=1M conv=fsync status=none" \
    "~cp --sparse=always + sync|cp --sparse=always src.img out.bin && sync out.bin" \
    "~qemu-img convert + sync|qemu-img convert -O raw src.img out.bin && sync out.bin"
  "$dh" /save=disk /nohdr /filename=out.bin /silent > /dev/null
  cmp src.img out.bin || { echo "save=disk: the backup differs from the disk" >&2; exit 1; }
  echo "      (backup file: $(du -k out.bin | cut -f1) KiB allocated)"
  cp --sparse=always out.bin backup.bin

  bench "restore=disk" "blank dst.img" \
    "$dh /restore=disk /disk=1 /filename=backup.bin /confirm /silent" \
    "dd|dd if=backup.bin of=dst.img bs=1M conv=notrunc status=none" \
    "dd conv=fsync|dd if=backup.bin of=dst.img bs=1M conv=notrunc,fsync status=none" \
    "~cp --sparse=always + sync|cp --sparse=always backup.bin dst.img && sync dst.img" \
    "~qemu-img convert + sync|qemu-img convert -O raw backup.bin dst.img && sync dst.img"
  blank dst.img
  "$dh" /restore=disk /disk=1 /filename=backup.bin /confirm /silent > /dev/null
  cmp src.img dst.img || { echo "restore=disk: the disk differs from the backup" >&2; exit 1; }

  bench "compare" ":" \
    "$dh /compare /source=out.bin /target=backup.bin /silent" \
    "~cmp|cmp out.bin backup.bin" \
    "~qemu-img compare|qemu-img compare -f raw -F raw out.bin backup.bin"

  bench "wipe=disk" "cp --sparse=always src.img dst.img && sync dst.img" \
    "$dh /wipe=disk /disk=1 /confirm /silent" \
    "dd|dd if=/dev/zero of=dst.img bs=1M count=$mib conv=notrunc status=none" \
    "dd conv=fsync|dd if=/dev/zero of=dst.img bs=1M count=$mib conv=notrunc,fsync status=none" \
    "~fallocate -p + sync|fallocate --punch-hole --offset 0 --length $bytes dst.img && sync dst.img"
  cp --sparse=always src.img dst.img
  "$dh" /wipe=disk /disk=1 /confirm /silent > /dev/null
  cmp -n $bytes dst.img /dev/zero || { echo "wipe=disk: the disk is not all zeros" >&2; exit 1; }
  echo "      (wiped image: $(du -k dst.img | cut -f1) KiB allocated)"
done
