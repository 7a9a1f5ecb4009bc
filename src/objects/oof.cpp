#include "oof.h"

#include <span>

#include "byte_reader.h"
#include "indgen_memory.h"

namespace kelvane {

namespace {

constexpr uint32_t kFailed = 1;
constexpr uint32_t kNameLimit = 0x7FFFFFFF;  // beyond what an allocation takes

void read_words(ByteReader& reader, std::span<uint32_t> words) {
  for (uint32_t& word : words) {
    word = reader.u32();
  }
}

}  // namespace

uint32_t read_ooflib_header(std::FILE* stream, ooflib_header* record) {
  ByteReader reader(stream, ByteOrder::big);
  record->word = reader.u32();
  reader.read(record->fields[0]);
  reader.read(record->fields[1]);
  record->entry_count = reader.u32();
  record->table_offset = reader.u32();
  read_words(reader, record->words);
  return reader.failed() ? kFailed : record->word;
}

uint32_t read_ooflib_tbl_entry(std::FILE* stream, ooflib_tbl_entry* record) {
  ByteReader reader(stream, ByteOrder::big);
  *record = {};
  record->number = reader.u32();
  reader.read(record->field);
  read_words(reader, record->words);
  record->name_length = reader.u32();
  if (record->name_length > 0) {
    // Looked at before memory of that size is asked for.
    if (reader.failed() || record->name_length >= kNameLimit ||
        !fits(record->name_length, 1, reader.rest())) {
      return kFailed;
    }
    // One byte more than the length says is stored; the name ends there whatever it is.
    record->name = gen_alloc_array<char>(record->name_length + 1);
    const std::span name(reinterpret_cast<uint8_t*>(record->name), record->name_length + 1);
    reader.read(name);
    name.back() = 0;
  }
  const uint64_t units =
      uint64_t{record->words[kOasysFirstUnits]} + record->words[kOasysSecondUnits];
  reader.skip(units * sizeof(uint32_t));
  return reader.failed() ? kFailed : kOasysLibraryWord;
}

void free_ooflib_tbl_entry_ptr(ooflib_tbl_entry* record) {
  for (void* const owned : {static_cast<void*>(record->name), record->unused_1, record->unused_2}) {
    gen_free(owned);
  }
  record->name = nullptr;
  record->unused_1 = nullptr;
  record->unused_2 = nullptr;
}

}  // namespace kelvane
