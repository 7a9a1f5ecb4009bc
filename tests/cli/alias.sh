# shellcheck shell=bash
# An alias is an address and a mask, both hexadecimal, taken at once.
old_and_new
for text in 1000:ffff 0x1000:0xFFFF 1:2rest; do
  run kelvane -alias "$text" old new
done
for text in "" zz 1000 1000: :ffff 1000,ffff; do
  run kelvane -alias "$text" old new
done
run kelvane -alias bad -h
run kelvane -alias bad -invalid
run quietly kelvane -invalid -alias bad
head -n 1 words
