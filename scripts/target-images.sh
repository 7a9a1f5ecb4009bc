# Sourced by the scripts beside it: builds the images of the sample target.
# shellcheck shell=bash

# The sources in the order in which each revision is linked. The second has its functions in another
# order, as a linker that sorts by use may leave them.
target_sources() {
  if (($1 == 1)); then
    echo start control sensors calibration filter fan crc event_log text unpack
  else
    echo start control event_log filter sensors calibration crc fan unpack text
  fi
}

# compile_target COMPILER REVISION FOLDER: makes FOLDER/NAME.o of each source.
compile_target() {
  local compiler=$1 revision=$2 folder=$3 name
  mkdir -p "$folder"
  for name in $(target_sources 1); do
    # shellcheck disable=SC2086
    clang $compiler -std=c11 -ffreestanding -Os -Wall -Wextra "-DFIRMWARE_REVISION=$revision" \
      -c "src/target/$name.c" -o "$folder/$name.o"
  done
}

# objects REVISION FOLDER: the compiled sources in link order.
objects() {
  local name
  for name in $(target_sources "$1"); do
    echo "$2/$name.o"
  done
}

# stored_object COMPILER FOLDER SECTION FILE: an object that holds the bytes of FILE in SECTION.
stored_object() {
  # shellcheck disable=SC2086
  printf '.section %s,"a"\n.incbin "%s"\n' "$3" "$4" | clang $1 -c -x assembler - -o "$2/$3.o"
}

# build_memory_image COMPILER REVISION FOLDER IMAGE: links an image with ROM copies, twice, since what
# is stored has to be linked first.
build_memory_image() {
  local compiler=$1 revision=$2 folder=$3 image=$4 stored
  local linked=()
  compile_target "$compiler" "$revision" "$folder"
  mapfile -t linked < <(objects "$revision" "$folder")
  for stored in 0 1; do
    clang -E -P -x c "-DSTORED=$stored" src/target/memory.ld -o "$folder/memory.ld"
    ld.lld -T "$folder/memory.ld" -o "$image" "${linked[@]}"
    if ((stored == 0)); then
      llvm-objcopy -O binary --only-section=.data "$image" "$folder/data.bin"
      llvm-objcopy -O binary --only-section=.text_seldom "$image" "$folder/seldom.bin"
      clang -std=c11 -O1 src/target/pack.c -o "$folder/pack"
      "$folder/pack" <"$folder/seldom.bin" >"$folder/seldom.packed"
      stored_object "$compiler" "$folder" .stored.data "$folder/data.bin"
      stored_object "$compiler" "$folder" .stored.seldom "$folder/seldom.packed"
      linked+=("$folder/.stored.data.o" "$folder/.stored.seldom.o")
    fi
  done
}
