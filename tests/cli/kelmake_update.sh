# shellcheck shell=bash
# An update of a device: what it is beside a patch, the same for any number of jobs, and one for each
# setting, which all come right on a model of the flash.
for ((i = 0; i < 400; ++i)); do printf 'word %06d' $((i * i % 7919)); done >old
{ head -c 2000 old && printf '%0300d' 7 && tail -c +2001 old | sed 's/word 000/WORD 000/'; } >new
# What code and memory take changes with the device's sources.
kelmake --bundle --jobs 1 --page 1024 --report 'report 1' old new -o update |
  sed -E '/^  bytes of (RAM|code)/s/ +[0-9]+ +[0-9]+/ N N/'
sed -E -e 's/"seconds": [0-9.]*/"seconds": S/' -e 's/"(memory|code)": [0-9]{3,}/"\1": N/g' 'report 1'
mv update update1
kelmake --bundle --quiet --jobs 3 --page 1024 old new -o update
cmp update update1
kelpatch verify old new update

# settings OPTION ...: an update of these settings, tried at every cut of power.
settings() {
  kelmake --bundle --simulate --quiet "$@" old new -o update && kelpatch verify --quiet old new update
  kelpatch show update | grep -E '^(machine|large|small|reads|spare|bytes)'
}
settings --page 1024 --ring 2 --checkpoint 3 --model small
settings --page 512 --ring 1 --spare 60 --checkpoint 2 --rehearse
settings --machine arm --base 0x8000 --big-endian --effort quick
settings --base 100 --little-endian --effort best
settings --big-endian --effort quick --page 1024 --map 0
kelmake --bundle --simulate --page 2048 old new -o update | grep cut
kelmake --bundle --quiet --page 64 old new -o update && kelpatch verify --quiet old new update

# An image that grows by more than the ring is raised first, if that pays, or as one says.
for ((i = 0; i < 500; ++i)); do printf 'word %06d' $((i * i % 7919)); done >short
{ head -c 900 short && seq 500007 7919 7000000 | tr -d '\n' && tail -c +901 short; } >long
cat short long >longer
: >empty
# raised OPTION ...: what it says of raising.
raised() {
  kelmake --bundle --page 256 --ring 4 --checkpoint 2 --report report "$@" -o update |
    sed -n '/^update:/p;/is raised/p;/pages of the image/p'
  grep -o '"raise.*' report
  kelpatch show update | grep '^raised'
  kelpatch verify "${@: -2}" update
}
raised short long
cp update usual
raised --raise 22 short long
cmp update usual
raised --effort quick --raise 0 short long
raised --effort quick --raise 40 --checkpoint 20 --simulate short long
raised --effort quick --ring 20 --checkpoint 8 --spare 83 short long  # no slots
raised --effort quick --raise 1 long short
raised --raise 3 short empty
raised --raise 3 empty short
raised --effort quick short longer  # grows at its end alone

# Equal images, an empty one on either side, and one of a byte.
printf x >byte
for pair in 'old old' 'empty empty' 'empty byte' 'byte empty' 'byte old' 'old byte'; do
  # shellcheck disable=SC2086
  kelmake --bundle $pair -o update | sed -n '/^update:/p;/change/p;/worth/p'
  # shellcheck disable=SC2086
  kelpatch verify $pair update
done
# A patch may need more spare pages than there are: here blocks of a page change places.
for ((i = 0; i < 24; ++i)); do
  seq $((i * 1000)) $((i * 1000 + 990)) | head -c 4096
done >old_blocks
for ((i = 0; i < 24; ++i)); do
  dd if=old_blocks bs=4096 skip=$(((i * 5 + 3) % 24)) count=1 status=none
done >new_blocks
kelmake --bundle --ring 1 --checkpoint 1 --spare 6 --effort quick old_blocks new_blocks -o update |
  sed -n '/^update:/p;/spare pages/p;/^    /p'

# What does not fit says what would.
run kelmake --bundle --spare 5 old new -o kept
run kelmake --bundle --page 64 --ring 4 --checkpoint 2 --spare 5 old new -o kept
head -c 4200000 /dev/zero >large
run kelmake --bundle --quiet --page 64 large old -o kept
head -c 2200000 large | tr '\0' x >other
run kelmake --bundle --quiet --page 64 old other -o kept
kelmake --quiet --effort quick old other -o patch
run kelpatch plan patch old --page 64 --unit 4
run kelmake --bundle --quiet --raise 65534 short long -o kept
run kelmake --bundle old missing -o kept
run kelmake --bundle old new -o old
ls kept 2>/dev/null

run kelmake --bundle old new
run kelmake --bundle --format 1 old new -o kept
run kelmake --bundle --profile any old new -o kept
run kelmake --bundle --time 5 old new -o kept
run kelmake --page 1024 old new -o kept
run kelmake --simulate old new -o kept
run kelmake --bundle --page 1000 old new -o kept
run kelmake --bundle --page 32 old new -o kept
run kelmake --bundle --ring 0 old new -o kept
run kelmake --bundle --map 65536 old new -o kept
run kelmake --bundle --raise 65536 old new -o kept
run kelmake --bundle --model huge old new -o kept
run kelmake --bundle --machine z80 old new -o kept
run kelmake --bundle --base 0x old new -o kept
run kelmake --bundle --base 123456789 old new -o kept
ls kept 2>/dev/null
