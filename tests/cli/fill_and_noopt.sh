# shellcheck shell=bash
# Four bytes that become one value: a fill, unless it is off. Version 0 has no fill, whatever is asked.
printf ABCDEFGHIJKLMNOP >old
printf ABCDxxxxIJKLMNOP >new
for options in "" -noopt "-noopt -fill" "-fill -noopt"; do
  # shellcheck disable=SC2086
  kelvane -version 1 $options old new
  echo "version 1 $options"
  hex diff.out 48
done
for options in "" -fill "-fill -noopt"; do
  # shellcheck disable=SC2086
  kelvane -version 0 $options old new
  echo "version 0 $options"
  hex diff.out 16
done
