# shellcheck shell=bash
# An update of a device is shown, applied and verified as a patch is, and takes a way back.
for ((i = 0; i < 400; ++i)); do printf 'word %06d' $((i * i % 7919)); done >old
{ head -c 2000 old && printf '%0100d' 7 && tail -c +2001 old; } >new
kelmake --bundle --quiet --page 1024 old new -o update
kelpatch show update
kelpatch verify old new update
kelpatch verify --quiet old new update
kelpatch apply old update -o made
cmp made new
kelmake --quiet old new -o patch
kelpatch bundle patch old new --page 1024 -o by_patch
kelpatch show by_patch
kelpatch verify old new by_patch
kelpatch apply old by_patch -o made
cmp made new

# With a way back, and with room for a signature.
kelmake --bundle --quiet --page 1024 --model small new old -o back
run kelpatch bundle update old new --page 1024 --spare 20 --rollback back --signature 16 --simulate -o both
kelpatch show both | grep -E '^(bytes|spare)'
run kelpatch bundle patch old new --page 1024 --spare 12 --rollback back -o mixed
kelpatch show mixed | grep -E '^(update|bytes)'
run kelpatch bundle update old new --page 1024 -o kept
run kelpatch bundle update old new --spare 60 -o kept
# A ring is told for patches alone.
run kelpatch bundle update old new --page 1024 --spare 20 --rollback back --ring 4 -o kept
run kelpatch bundle update old new --page 1024 --spare 20 --ring 4 -o kept
kelmake --quiet new old -o patch_back
run kelpatch bundle update old new --page 1024 --spare 40 --rollback patch_back --ring 4 -o mixed
run kelpatch bundle update old new --page 1024 --spare 20 --rollback update -o kept
run kelpatch plan update old

# What does not match, and what is damaged.
run kelpatch verify new new update
run kelpatch verify old old update
printf . | cat - old | head -c 4400 >other
run kelpatch verify other new update
run kelpatch apply other update -o kept
{ head -c 4499 new && printf .; } >other
run kelpatch verify old other update
run kelpatch apply --max-size 4000 old update -o kept
run kelpatch apply old update -o update
run kelpatch show --ram old new update
# Its header may tell of more spare pages than there is memory for.
kelmake --bundle --quiet old new -o whole
{ tail -c +7 whole | head -c 2 && bytes FFFF03 && tail -c +10 whole; } >summed
{ printf KB && gzip -c summed | tail -c 8 | head -c 4 && cat summed; } >greedy
run kelpatch apply old greedy -o kept
size=$(stat -c %s update)
for at in 2 6 7 8 $((size - 1)); do
  { head -c "$at" update && printf '\377' && tail -c +$((at + 2)) update; } >damaged
  run kelpatch show damaged
done
head -c 30 update >damaged
run kelpatch show damaged
head -c 7 update >damaged
run kelpatch show damaged
ls kept 2>/dev/null
