# shellcheck shell=bash
# Eight bytes that compress to seven, a saving of 13 per cent: tried from the least length on, and
# taken where the saving is greater than the least per cent.
printf ABCDEFGH >old
printf bbbbabbb >new
for options in "" "-min_compression_length 8" "-min_compression_length 9" \
  "-min_compression_length 8 -min_compression_percent 12" \
  "-min_compression_length 8 -min_compression_percent 13" \
  "-min_compression_length 8 -noopt" \
  "-min_compression_length 8 -noopt -compressed_substitutions"; do
  # shellcheck disable=SC2086
  kelvane -version 1 $options old new
  echo "version 1 $options"
  hex diff.out 48
done
kelvane -compressed_substitutions -min_compression_length 8 old new
echo version 0
hex diff.out 16
