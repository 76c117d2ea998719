#!/usr/bin/env bash
# Writes the seed corpora of the fuzz targets (fuzz/corpus/<target>/) from
# disk images made by the tools the tests compare with: sfdisk, sgdisk,
# mkfs.fat, mkfs.exfat, mkntfs, qemu-img, and diskhold itself for backup files.  Each
# seed is the part of an image its target reads, with trailing zeros cut
# (the targets pad with zeros), so that the committed corpus stays small.
#
#   fuzz/make_corpus.sh <diskhold> [corpus folder]
set -euo pipefail
export PATH="$PATH:/sbin:/usr/sbin"
diskhold=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
out=$(realpath -m "${2:-$here/corpus}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# seed <target> <name> <selector bytes as \x..> <file> [offset bytes] [max bytes]
seed() {
  mkdir -p "$out/$1"
  python3 - "$out/$1/$2" "$3" "$4" "${5:-0}" "${6:-1048576}" <<'EOF'
import sys
path, prefix, source, offset, limit = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4]), int(sys.argv[5])
data = open(source, 'rb').read()[offset:offset + limit].rstrip(b'\0')
open(path, 'wb').write(prefix.encode('latin-1').decode('unicode_escape').encode('latin-1') + data)
EOF
}

text_seed() {
  mkdir -p "$out/$1"
  printf '%b' "$3" >"$out/$1/$2"
}

# ---- MBR with an extended chain, packed into the first sectors ------------
truncate -s 16M mbr.img
printf 'label: dos\nstart=2, size=4, type=7, bootable\nstart=6, size=2, type=c\nstart=8, size=40, type=5\nstart=10, size=4, type=6\nstart=16, size=4, type=e\n' |
  sfdisk -q mbr.img
# fuzz_commands takes them behind a layout byte whose bit 7 makes an MBR disk.
mbr_seed() {
  seed fuzz_mbr "$1" "$2" "$3" 0 32768
  seed fuzz_commands "$1" "$2\x80" "$3" 0 32768
}
mbr_seed chain-list '\x17' mbr.img
mbr_seed chain-hide-removable '\x80' mbr.img
mbr_seed chain-create '\x6a' mbr.img
truncate -s 16M loop.img
printf 'label: dos\nstart=4, size=40, type=f\nstart=6, size=4, type=7\nstart=12, size=4, type=7\n' | sfdisk -q loop.img
# The second EBR links back to the first: a loop the chain walk must stop.
python3 - loop.img <<'EOF'
import sys, struct
f = open(sys.argv[1], 'r+b')
f.seek(10 * 512 + 462)
f.write(bytes([0, 0, 0, 0, 0x05, 0, 0, 0]) + struct.pack('<II', 0, 40))
EOF
mbr_seed chain-loop '\x07' loop.img

# ---- GPT: four entries with the backup at the end, and 128 without --------
truncate -s 1M gpt4.img
sgdisk -a 1 --resize-table=4 -n 1:4:100 -t 1:ef00 -c 1:EFI -n 2:101:900 -t 2:0700 -c 2:Data gpt4.img >/dev/null
# The GPT seeds serve fuzz_commands as they are.
for target in fuzz_gpt fuzz_commands; do
python3 - gpt4.img "$out/$target" <<'EOF'
import os, sys
data = open(sys.argv[1], 'rb').read()
os.makedirs(sys.argv[2], exist_ok=True)
# selector, tail sector count, sectors 0-2, then the last two sectors
open(os.path.join(sys.argv[2], 'sgdisk-4-entries'), 'wb').write(bytes([0, 2]) + data[:3 * 512] + data[-2 * 512:])
open(os.path.join(sys.argv[2], 'sgdisk-4-entries-del'), 'wb').write(bytes([0xC0, 2]) + data[:3 * 512] + data[-2 * 512:])
# The primary header zeroed: listed from the backup, never rewritten.
open(os.path.join(sys.argv[2], 'sgdisk-4-entries-primary-zeroed'), 'wb').write(
    bytes([0xC0, 2]) + data[:512] + bytes(512) + data[2 * 512:3 * 512] + data[-2 * 512:])
EOF
done
truncate -s 1M gpt128.img
sgdisk -n 1:34:233 -t 1:ef00 -n 2:234:0 -t 2:0700 gpt128.img >/dev/null
seed fuzz_gpt sgdisk-no-backup '\x0d\x00' gpt128.img 0 17408
seed fuzz_commands sgdisk-no-backup '\x0d\x00' gpt128.img 0 17408

# ---- volume boot records --------------------------------------------------
truncate -s 8M fat16.img
mkfs.fat -F 16 -s 4 -r 16 -R 1 -f 1 -n STICK fat16.img >/dev/null
seed fuzz_volume fat16-label '\x03' fat16.img 0 16384
truncate -s 40M fat32.img
mkfs.fat -F 32 -n BACKUP fat32.img >/dev/null
seed fuzz_volume fat32-boot '\x01' fat32.img 0 1536
truncate -s 4M ntfs.img
mkntfs -F -Q -q -c 512 -L DATA ntfs.img >/dev/null 2>&1
# The boot sector and the MFT up to $Volume (record 3).
mft=$(python3 -c "import struct,sys; b=open('ntfs.img','rb').read(512); print(struct.unpack('<Q', b[48:56])[0] * 512 * b[13])")
seed fuzz_volume ntfs-volume-name '\x08' ntfs.img 0 $((mft + 4096))
truncate -s 4M exfat.img
# Small clusters and alignment keep the root directory within the seed.
mkfs.exfat -b 4K -c 4K -L STICK exfat.img >/dev/null
seed fuzz_volume exfat-label '\x00' exfat.img 0 65536
# An encrypted volume's boot sector: a FAT32 look-alike with "-FVE-FS-".
python3 - bitlocker.img <<'EOF2'
import struct, sys
b = bytearray(512)
b[0:11] = b'\xeb\x58\x90-FVE-FS-'
struct.pack_into('<HB', b, 11, 512, 8)
b[82:90] = b'FAT32   '
b[510:512] = b'\x55\xaa'
open(sys.argv[1], 'wb').write(bytes(b))
EOF2
seed fuzz_volume bitlocker-format '\x46' bitlocker.img 0 512

# ---- backup files, as diskhold saves them ---------------------------------
truncate -s 16M disk.img
printf 'label: dos\nstart=2048, size=8192, type=7\n' | sfdisk -q disk.img
dd if=fat16.img of=disk.img bs=512 seek=2048 count=32 conv=notrunc status=none
export DISKHOLD_DISKS=disk.img
"$diskhold" /save=mbr /filename=mbr.dhb >/dev/null
"$diskhold" /save=vbr /part=1 /filename=vbr.dhb >/dev/null
"$diskhold" /save=range /range=0-3 /filename=range.dhb >/dev/null
"$diskhold" /save=mbr /nohdr /filename=mbr.bin >/dev/null
DISKHOLD_DISKS=gpt4.img "$diskhold" /save=gpt /filename=gpt.dhb >/dev/null
unset DISKHOLD_DISKS
seed fuzz_backup save-mbr-show '\x00' mbr.dhb
seed fuzz_backup save-mbr-restore '\x04' mbr.dhb
seed fuzz_backup save-vbr-restore '\x06' vbr.dhb
seed fuzz_backup save-range-compare '\x02' range.dhb
seed fuzz_backup raw-mbr-restore '\x08' mbr.bin
seed fuzz_backup save-gpt-restore '\x09' gpt.dhb

# ---- VMware disks ---------------------------------------------------------
qemu-img create -q -f vmdk -o subformat=monolithicFlat flat.vmdk 1M
sed -e 's/"flat-flat.vmdk"/"d-flat.vmdk"/' flat.vmdk >d.vmdk
seed fuzz_vmdk_descriptor qemu-flat-list '\x00' d.vmdk
seed fuzz_vmdk_descriptor qemu-flat-hide-by-path '\x83' d.vmdk
qemu-img create -q -f vmdk -o subformat=twoGbMaxExtentSparse split.vmdk 1M
sed -e 's/"split-s001.vmdk"/"d-s001.vmdk"/' split.vmdk >d.vmdk
seed fuzz_vmdk_descriptor qemu-sparse-active '\x04' d.vmdk
text_seed fuzz_vmdk_descriptor extents-mixed '\x06# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\ncreateType="monolithicFlat"\nRW 1024 FLAT "d-flat.vmdk" 0\nRW 512 ZERO\nRW 2048 SPARSE "d-s001.vmdk"\nddb.geometry.cylinders = "3"\nddb.geometry.heads = "16"\nddb.geometry.sectors = "63"\nddb.adapterType = "lsilogic"\n'
# Sparse files: commands on them in fuzz_commands, the grain mapper alone in
# fuzz_vmdk_grains.
sparse_seed() {
  seed fuzz_commands "$@"
  seed fuzz_vmdk_grains "$@"
}
qemu-img create -q -f vmdk -o subformat=monolithicSparse sparse.vmdk 1M
sparse_seed qemu-empty-list '\x00' sparse.vmdk
sparse_seed qemu-empty-status '\x85' sparse.vmdk
# A disk with an MBR in grains of 4 KiB, so that the seed stays small.
python3 - small.vmdk <<'EOF'
import struct, sys
desc = (b'# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\ncreateType="monolithicSparse"\n'
        b'RW 2048 SPARSE "s.vmdk"\nddb.geometry.cylinders = "2"\nddb.geometry.heads = "16"\n'
        b'ddb.geometry.sectors = "63"\nddb.adapterType = "ide"\n')
grain, gtes, cap = 8, 512, 2048
rgd, rgt = 2, 3
gd, gt = rgt + 4, rgt + 4 + 1
overhead = 16
f = bytearray(overhead * 512 + grain * 512)
struct.pack_into('<IIIQQQQIQQQ', f, 0, 0x564D444B, 1, 3, cap, grain, 1, 1, gtes, rgd, gd, overhead)
f[73:77] = b'\n \r\n'
f[512:512 + len(desc)] = desc
struct.pack_into('<I', f, rgd * 512, rgt)
struct.pack_into('<I', f, gd * 512, gt)
struct.pack_into('<I', f, rgt * 512, overhead)
struct.pack_into('<I', f, gt * 512, overhead)
mbr = overhead * 512
f[mbr:mbr + 2] = b'\x33\xc0'
f[mbr + 446:mbr + 462] = bytes([0x80, 0, 0, 0, 0x07, 0, 0, 0]) + struct.pack('<II', 63, 1985)
f[mbr + 510:mbr + 512] = b'\x55\xaa'
open(sys.argv[1], 'wb').write(f)
EOF
qemu-img check -q small.vmdk
sparse_seed grain8-hide '\x03' small.vmdk
sparse_seed grain8-copy-by-path '\x87' small.vmdk

# ---- machine files --------------------------------------------------------
text_seed fuzz_machine_file readme '\x00[machine]\ncodepage = 437\nelevated = yes\nversion = 6.1\ncomputername = TESTPC\nsystemdrive = C:\ndecimal = ,\nthousands = .\ngrouping = 3\nformatengine = ok\nshutdownlog = shutdown.log\n\n[environment]\nNAME = value\n\n[drive 0]\nimage = disk0.img\nmedia = fixed\nheads = 255\nsectors = 63\ncylinders = 2\nbadsectors = 100-120,5000\nlayout = 07,1048576,4194304\ninstance = IDE\\DiskST3500418AS\\5&2a4f5&0&0.0.0\nfriendlyname = ST3500418AS  ATA Device\ndevicedesc = Disk drive\nparentidprefix = 7&2a3b&0\n\n[drive 1]\nimage = disk1.img\n\n[drive 3]\nimage = usb.img\nmedia = removable\nreadonly = yes\n\n[volume C]\ndrive = 0\noffset = 1048576\nguid = {6a1c0000-0000-0000-0000-000000000001}\n\n[volume E]\ndevice = \\??\\STORAGE#RemovableMedia#7&2a3b&0&RM\n'
text_seed fuzz_machine_file vmdk-and-absent '\x86[drive 0]\nimage = v.vmdk\n[drive 1]\nimage = disk0.img\nmedia = absent\n[drive 2]\nimage=usb.img\nmedia=removable\n; comment\n# another\n'
text_seed fuzz_machine_file edit-readonly '\x80[machine]\nelevated = no\nversion = 5.1\n[drive 0]\nimage = disk0.img\nreadonly = yes\n'

# ---- command lines and option files ----------------------------------------
args() {
  local name=$1
  shift
  mkdir -p "$out/fuzz_argv"
  printf '%s\0' "$@" | head -c -1 >"$out/fuzz_argv/$name"
  mkdir -p "$out/fuzz_option_file"
  printf '%s\n' "$*" >"$out/fuzz_option_file/$name"
}
args list /list /freespace /logical
args list-gpt-text /tablist /disk=1 /text /asciimap
args info-ini /info /writeini /filename=disks.ini
args hide /hide /disk=0 /part=5 /confirm /result
args type /type=1C /disk=0 /part=2 /confirm
args del-gpt /del /disk=1 /part=2 /confirm
args create /create /disk=0 /start=freespace /size=max /align=1024 /type=12d
args sort /sort /disk=0 /confirm /silent /result
args save-show /save=track0 /option=mbr /disk=0 /filename=t.dhb /show=File /file
args wipe-range /wipe=range /range=100-199 /disk=2 /confirm
args copy-compare /copy /disk=0 /source=0 /target=62 /compare
args signature /signature=Write /value=1F2E3D4C /disk=0 /confirm /msg=1
args status /status=7 /disk=2 /ignore /shutdown=4
args vol /volumeid=Read /vol=STICK
args vmdk /list /disk=v.vmdk /partcount
args bootmenu /bootmenu /disk=0 /debug /FlashMBR
args repair /repair=Win7 /disk=0 /part=system
args help '/?'
