# shellcheck shell=bash
# The example of the applier's header takes what kelvane makes by default, and in version 1.
seq 1 2000 >old
seq 1 2000 | sed -e 's/^1000$/a thousand/' -e '/^50$/d' -e 's/^1999$/and so on/' >new
for options in "" "-version 1 -inc"; do
  # shellcheck disable=SC2086
  run kelvane -b 8 $options old new
  run apply_example old diff.out made
  cmp new made
  rm made
done
run apply_example new diff.out made
run apply_example old new made
ls
