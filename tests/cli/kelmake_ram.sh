# shellcheck shell=bash
# Linked images as target memory: what is compared and found, as text and as JSON, and what can't be.

# little NUMBER: a word in the digits of its bytes.
little() {
  printf '%02x%02x%02x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255))
}

# linked NAME ADDRESS DIGITS: a little-endian image with .text of these bytes at the address, and without
# symbols.
linked() {
  local size=$((${#3} / 2)) none
  none=$(printf '%080d' 0)
  {
    bytes 7F454C46010101 000000000000000000 0200 0800 01000000 00000000 00000000
    bytes "$(little $((52 + size + 17)))" 00000000 3400 0000 0000 2800 0300 0200 "$3"
    printf '\0.text\0.shstrtab\0'
    bytes "$none" 01000000 01000000 02000000 "$(little "$2")" 34000000 "$(little "$size")" \
      00000000 00000000 01000000 00000000
    bytes 07000000 03000000 00000000 00000000 "$(little $((52 + size)))" 11000000 00000000 00000000 \
      01000000 00000000
  } >"$1"
}

code=$(for number in {1..40}; do little $((number * 0x01020304)); done)
linked old.elf 0x8000 "$code"
linked new.elf 0x8010 "$code${code:64}"
linked other.elf 0x8000 "$code"
kelmake --ram --format 0 --report report old.elf new.elf -o patch
kelpatch verify --ram old.elf new.elf patch
sed 's/"seconds": [0-9.]*/"seconds": S/' report
kelmake --ram --format 0 --effort quick old.elf other.elf -o patch | tail -n 1
kelmake --ram --format 0 --quiet old.elf new.elf -o patch
# A terminal does not obey the name of a section.
sed 's/\.text/\x1b[31m/' old.elf >red.elf
sed 's/\.text/\x1b[31m/' new.elf >red2.elf
kelmake --ram --format 0 --effort quick --report report red.elf red2.elf -o red | grep ' at '
grep '"name": .*31m' report
kelpatch show --ram red.elf red2.elf red | grep -m 1 ' in '
run kelpatch verify --ram $'\x1b[31m' new.elf patch
run kelmake --ram --format 0 old.elf red.elf -o other

run kelmake --ram old.elf new.elf -o other
printf '.text\n' >words
run kelmake --ram --format 0 --exclude words old.elf new.elf -o other
run kelmake --ram --format 0 --exclude words old.elf new.elf -o words
run kelpatch apply --ram --base 0 old.elf patch -o old.elf
run kelpatch verify --ram --max-size 1 old.elf new.elf patch
run kelpatch show --ram --byte-order big old.elf new.elf patch
run kelmake --ram --exclude missing old.elf new.elf -o other
echo text >plain
run kelmake --ram plain new.elf -o other
run kelmake --ram old.elf plain -o other
run kelmake --ram old.elf missing -o other
# A message of a reader gets the name of the file, also where its letters happen to stand in it.
head -c 60 new.elf >e
run kelmake --ram old.elf e -o other
ls
