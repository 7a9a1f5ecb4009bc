# shellcheck shell=bash
# Plans and bundles for a device, and what they refuse.
for ((i = 0; i < 900; ++i)); do printf 'word %06d' "$i"; done >old.bin
{ head -c 3000 old.bin && printf '%0100d' 7 && tail -c +3001 old.bin; } >new.bin
kelvane -b 8 -inc -version 1 -s 100000 -o there old.bin new.bin
kelvane -b 8 -inc -version 1 -s 100000 -o back new.bin old.bin
run kelpatch plan there old.bin --page 1024 --spare 4
run kelpatch plan there old.bin --page 256 --ring 1 --spare 20 --unit 4 --window 64 --classes 1 \
  --erase-time 20 --program-time 2
run kelpatch bundle there old.bin new.bin -o made --page 1024 --simulate
run kelpatch bundle there old.bin new.bin -o made --page=1024 --rollback back --signature 64 --simulate
head -c 8 made | od -An -tx1

# What does not fit says what would.
run kelpatch plan there old.bin --page 128 --spare 1
run kelpatch bundle there old.bin new.bin -o made --page 1024 --window 2048
run kelpatch plan there old.bin --max-size 9999
run kelpatch bundle there old.bin new.bin -o made --max-size 9999
run kelpatch plan there old.bin --unit 5
run kelpatch plan there old.bin --page 1048576 --spare 5000
run kelpatch bundle there old.bin old.bin -o kept
run kelpatch bundle there new.bin new.bin -o kept
run kelpatch bundle there old.bin new.bin -o kept --rollback there
kelvane -b 8 -version 0 -s 100000 -o version0 old.bin new.bin
run kelpatch plan version0 old.bin
patch_by_hand 1 old.bin old.bin 06 0000 03 0000 >behind
run kelpatch plan behind old.bin
# It takes in what lies behind the old file, which a device does not know.
cp old.bin padded.bin && head -c 8 /dev/zero >>padded.bin
patch_by_hand 1 old.bin padded.bin 03 0001 "$(printf %08x 9900)" 00000008 00000000 \
  06 0001 "$(printf %08x 9907)" 0001 00 >unknown
run kelpatch plan unknown old.bin
head -c 4200000 /dev/zero >large.bin
{ cat large.bin && echo x; } >larger.bin
kelvane -version 1 -b 100000 -o large large.bin larger.bin
run kelpatch plan large large.bin --page 64
for output in there old.bin new.bin back; do
  run kelpatch bundle there old.bin new.bin --rollback back -o "$output"
done
ls kept 2>/dev/null

run kelpatch plan there
run kelpatch bundle there old.bin new.bin
run kelpatch plan there old.bin -o made
run kelpatch plan there old.bin --simulate
run kelpatch plan there old.bin --quiet
run kelpatch show there --page 1024
run kelpatch plan there old.bin --page 1k
run kelpatch plan there old.bin --page 1000
run kelpatch plan there old.bin --ring 0
