# shellcheck shell=bash
# Updates between linked images: what is loaded, where it lies, and what the headers tell.

# words NUMBER ...: each as four bytes, little-endian.
words() {
  local number digits
  for number in "$@"; do
    printf -v digits %08x "$number"
    bytes "${digits:6:2}${digits:4:2}${digits:2:2}${digits:0:2}"
  done
}

# elf MACHINE FLAGS ENTRY LOAD_ADDRESS FILE ...: an image that loads the files there. The first is code.
elf() {
  local machine=$1 flags=$2 entry=$3 offset executable=1
  shift 3
  offset=$((52 + 16 * $#))
  bytes 7F454C46 01010100 00000000 00000000
  words $((machine << 16 | 2)) 1 "$entry" 52 0 "$flags" $((32 << 16 | 52)) $(($# / 2)) 0
  set -- "$@" end
  while [[ $1 != end ]]; do
    words 1 "$offset" "$1" "$1" "$(stat -c %s "$2")" "$(stat -c %s "$2")" "$executable" 4
    offset=$((offset + $(stat -c %s "$2")))
    executable=0
    contents+=("$2")
    set -- "${@:3}"
  done
  cat "${contents[@]}"
  contents=()
}
contents=()

# wide_elf LOAD_ADDRESS FILE: a 64-bit image for RISC-V that loads the file there.
wide_elf() {
  local number size
  size=$(stat -c %s "$2")
  bytes 7F454C46 02010100 00000000 00000000
  words $((243 << 16 | 2)) 1 0 0 64 0 0 0 0 $((56 << 16 | 64)) 1 0 1 1
  for number in 120 "$1" "$1" "$size" "$size" 4096; do
    words $((number & 0xFFFFFFFF)) $((number >> 32))
  done
  cat "$2"
}

for ((i = 0; i < 300; ++i)); do words $((i * 40503 % 65536)) $((0x8000 + i * 8)); done >code
{ head -c 1000 code && words 1 2 3 && tail -c +1001 code; } >longer
printf '%0200d' 1 >table
printf '%0204d' 12 >table2
elf 40 0 0x8001 0x8000 code 0x10000 table >old.elf
elf 40 0 0x8001 0x8000 longer 0x10000 table2 >new.elf

kelmake --bundle --simulate --page 1024 --report report old.elf new.elf -o update | grep -v '^  bytes of '
grep -E '"(ranges|pages|base)"' report
# code_of PART: what the ledger of sizes has for it.
code_of() {
  sed -nE "s/^cortex-m3,-Oz,\"$1\",([0-9]+),.*/\1/p" "$(dirname "${BASH_SOURCE[0]}")/../apply/device_sizes.csv"
}
code=$(($(code_of 'update of flash, dense') - $(code_of 'dense, all machines') + $(code_of 'dense, Thumb')))
grep -cE "\"update\": .*\"code\": $code" report
kelpatch show update | grep -E '^(pages|range)'

# The raw images of the same have the load address as their first byte.
{ cat code && head -c $((0x8000 - 2400)) /dev/zero | tr '\0' '\377' && cat table; } >old.bin
{ cat longer && head -c $((0x8000 - 2412)) /dev/zero | tr '\0' '\377' && cat table2; } >new.bin
kelpatch verify old.bin new.bin update
# kelpatch reads linked images by a reader of its own.
kelpatch verify old.elf new.elf update
kelpatch apply old.elf update -o made.bin
cmp new.bin made.bin
run kelpatch bundle update old.elf new.elf --page 1024 --spare 40 --signature 8 -o signed
run kelmake --bundle --quiet --page 1024 --raise 1 old.elf new.elf -o kept

elf 20 0 0 0x8000 code >power.elf
elf 40 0 0 0x8000 code >either.elf
elf 40 0 0 0x8000 longer >either2.elf
elf 40 0 0 0x8000 code 0x8100 table >overlap.elf
elf 40 0 0 0x8000 code 0x20000000 table >far.elf
elf 40 0 0 >empty.elf
head -c 3000 old.elf | head -c 200 >cut.elf
wide_elf 0xFFFFF800 code >wide.elf
kelmake --bundle either.elf either2.elf -o update | grep '^  machine'
kelmake --bundle --machine none --base 0x100000 --big-endian either.elf either2.elf -o update | grep '^  machine'
# A machine whose code is little-endian keeps that where the command line tells another order.
elf 243 0 0 0x8000 code >risc.elf
elf 243 0 0 0x8000 longer >risc2.elf
kelmake --bundle --big-endian --effort quick risc.elf risc2.elf -o update | grep '^  machine'
{ head -c 4 old.elf && bytes 00 && tail -c +6 old.elf; } >class.elf
elf 40 0 0 0xFFFFF800 code >beyond.elf
# 64-bit images, up to the last address that an update has.
wide_elf 0xFFFFF690 code >wide1.elf
wide_elf 0xFFFFF694 longer >wide2.elf
kelmake --bundle --simulate --page 1024 wide1.elf wide2.elf -o wide | grep -v '^  bytes of '
kelpatch verify wide1.elf wide2.elf wide
run kelpatch apply wide1.elf wide -o made.bin
tail -c 2412 made.bin | cmp longer -
wide_elf 0x8000 code >wide32.elf
for pair in 'old.elf new.bin' 'old.bin new.elf' 'old.elf power.elf' 'old.elf overlap.elf' \
  'old.elf far.elf' 'empty.elf new.elf' 'cut.elf new.elf' 'wide.elf new.elf' 'class.elf new.elf' \
  'old.elf beyond.elf' 'risc.elf wide32.elf'; do
  # shellcheck disable=SC2086
  run kelmake --bundle --quiet $pair -o kept
  # shellcheck disable=SC2086
  run kelpatch verify $pair update
done
elf 40 0 0 0xFFF00000 code >high.elf
run kelpatch verify old.elf high.elf update
head -c 20 old.elf >header.elf
run kelmake --bundle --quiet old.elf header.elf -o kept
{ head -c 42 old.elf && bytes 0800 && tail -c +45 old.elf; } >entries.elf
run kelmake --bundle --quiet entries.elf new.elf -o kept
run kelpatch verify entries.elf new.elf update
run kelpatch apply header.elf update -o kept
ls kept 2>/dev/null
