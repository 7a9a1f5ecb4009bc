// PE headers, found, read and written field by field.
#include "pecoff.h"

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "byte_reader.h"
#include "comcoff.h"

namespace kelvane {

namespace {

constexpr long kSignatureOffset = 60;
constexpr uint64_t kEntrySize = 8;  // of the data directory, in the file

bool read_raw(void* bytes, size_t size, std::FILE* stream) {
  return std::fread(bytes, 1, size, stream) == size;
}

bool half(uint16_t* value, std::FILE* stream) {
  return GETSHORT(value, stream) == 0;
}

bool word(uint32_t* value, std::FILE* stream) {
  return GETINT(value, stream) == 0;
}

// A half that the record holds in a word.
bool wide_half(uint32_t* value, std::FILE* stream) {
  uint16_t read = 0;
  const bool good = half(&read, stream);
  *value = read;
  return good;
}

// A field that has 64 bits in PE32+ and 32 otherwise. It is unsigned, so what GETLONGLONG takes off
// the high half for a low half that looks negative is added again.
bool size_field(uint64_t* value, bool has_64_bits, std::FILE* stream) {
  if (has_64_bits) {
    const bool good = GETLONGLONG(value, stream) == 0;
    if (static_cast<int32_t>(static_cast<uint32_t>(*value)) < 0) {
      *value += uint64_t{UINT32_MAX} + 1;
    }
    return good;
  }
  uint32_t read = 0;
  const bool good = word(&read, stream);
  *value = read;
  return good;
}

void put_size_field(uint64_t value, bool has_64_bits, std::FILE* stream) {
  const auto low = static_cast<uint32_t>(value);
  if (has_64_bits) {
    PUTLONGLONG(static_cast<uint32_t>(value >> 32U), low, stream);
  } else {
    PUTINT(low, stream);
  }
}

bool read_image_dir_entry(pe::image_dir_entry* entry, std::FILE* stream) {
  return word(&entry->address, stream) && word(&entry->size, stream);
}

void write_image_dir_entry(const pe::image_dir_entry* entry, std::FILE* stream) {
  PUTINT(entry->address, stream);
  PUTINT(entry->size, stream);
}

bool read_standard_fields(pe::optional_header* record, std::FILE* stream) {
  return wide_half(&record->Magic, stream) && GETCHAR(&record->MajorLinkerVersion, stream) == 0 &&
         GETCHAR(&record->MinorLinkerVersion, stream) == 0 && word(&record->SizeOfCode, stream) &&
         word(&record->SizeOfInitializedData, stream) &&
         word(&record->SizeOfUninitializedData, stream) &&
         word(&record->AddressOfEntryPoint, stream) && word(&record->BaseOfCode, stream) &&
         (record->Magic != pe::kPe32 || word(&record->BaseOfData, stream));
}

bool read_windows_fields(pe::optional_header* record, std::FILE* stream) {
  const bool plus = record->Magic == pe::kPe32Plus;
  return size_field(&record->ImageBase, plus, stream) && word(&record->SectionAlignment, stream) &&
         word(&record->FileAlignment, stream) &&
         half(&record->MajorOperatingSystemVersion, stream) &&
         half(&record->MinorOperatingSystemVersion, stream) &&
         half(&record->MajorImageVersion, stream) && half(&record->MinorImageVersion, stream) &&
         half(&record->MajorSubsystemVersion, stream) &&
         half(&record->MinorSubsystemVersion, stream) && word(&record->Win32VersionValue, stream) &&
         word(&record->SizeOfImage, stream) && word(&record->SizeOfHeaders, stream) &&
         word(&record->CheckSum, stream) && wide_half(&record->Subsystem, stream) &&
         half(&record->DllCharacteristics, stream) &&
         size_field(&record->SizeOfStackReserve, plus, stream) &&
         size_field(&record->SizeOfStackCommit, plus, stream) &&
         size_field(&record->SizeOfHeapReserve, plus, stream) &&
         size_field(&record->SizeOfHeapCommit, plus, stream) &&
         word(&record->LoaderFlags, stream) && word(&record->NumberOfRvaAndSizes, stream);
}

bool read_fixed_entries(pe::optional_header* record, std::FILE* stream) {
  pe::image_dir_entry* before = nullptr;
  for (pe::image_dir_entry& entry : record->fixed) {
    if (!read_image_dir_entry(&entry, stream)) {
      return false;
    }
    if (before != nullptr) {
      before->next = &entry;
    }
    before = &entry;
  }
  return true;
}

// Reads `count` entries, each into memory of its own, and hangs them up at `link`.
bool read_extra_entries(pe::image_dir_entry** link, uint32_t count, std::FILE* stream) {
  for (uint32_t i = 0; i < count; ++i) {
    auto* const entry =
        static_cast<pe::image_dir_entry*>(std::calloc(1, sizeof(pe::image_dir_entry)));
    if (entry == nullptr) {
      return false;
    }
    *link = entry;
    link = &entry->next;
    if (!read_image_dir_entry(entry, stream)) {
      return false;
    }
  }
  return true;
}

bool read_data_directory(pe::optional_header* record, std::FILE* stream) {
  const int64_t rest = stream_rest(stream);
  const uint32_t count = record->NumberOfRvaAndSizes;
  if (rest >= 0 && !fits_array(0, count, kEntrySize, static_cast<uint64_t>(rest))) {
    return false;
  }
  const bool has_fixed = count >= pe::kFixedEntries;
  if (has_fixed && !read_fixed_entries(record, stream)) {
    return false;
  }
  const bool good =
      read_extra_entries(&record->extra, has_fixed ? count - pe::kFixedEntries : count, stream);
  if (!good) {
    free_pecoff_optheader(record);
  } else if (has_fixed) {
    record->fixed[pe::kFixedEntries - 1].next = record->extra;
  }
  return good;
}

void write_windows_fields(const pe::optional_header* record, std::FILE* stream) {
  const bool plus = record->Magic == pe::kPe32Plus;
  put_size_field(record->ImageBase, plus, stream);
  PUTINT(record->SectionAlignment, stream);
  PUTINT(record->FileAlignment, stream);
  for (const uint16_t version :
       {record->MajorOperatingSystemVersion, record->MinorOperatingSystemVersion,
        record->MajorImageVersion, record->MinorImageVersion, record->MajorSubsystemVersion,
        record->MinorSubsystemVersion}) {
    PUTSHORT(version, stream);
  }
  for (const uint32_t value :
       {record->Win32VersionValue, record->SizeOfImage, record->SizeOfHeaders, record->CheckSum}) {
    PUTINT(value, stream);
  }
  PUTSHORT(record->Subsystem, stream);
  PUTSHORT(record->DllCharacteristics, stream);
  for (const uint64_t size : {record->SizeOfStackReserve, record->SizeOfStackCommit,
                              record->SizeOfHeapReserve, record->SizeOfHeapCommit}) {
    put_size_field(size, plus, stream);
  }
  PUTINT(record->LoaderFlags, stream);
  PUTINT(record->NumberOfRvaAndSizes, stream);
}

void write_data_directory(const pe::optional_header* record, std::FILE* stream) {
  uint32_t count = record->NumberOfRvaAndSizes;
  if (count >= pe::kFixedEntries) {
    for (const pe::image_dir_entry& entry : record->fixed) {
      write_image_dir_entry(&entry, stream);
    }
    count -= pe::kFixedEntries;
  }
  const pe::image_dir_entry* entry = record->extra;
  for (; count > 0 && entry != nullptr; --count, entry = entry->next) {
    write_image_dir_entry(entry, stream);
  }
}

}  // namespace

int32_t skip_to_pecoff_fileheader(std::FILE* stream) {
  const long start = std::ftell(stream);
  uint8_t bytes[4] = {};
  uint32_t offset = 0;
  const bool found = start >= 0 && read_raw(bytes, 2, stream) && std::memcmp(bytes, "MZ", 2) == 0 &&
                     std::fseek(stream, start + kSignatureOffset, SEEK_SET) == 0 &&
                     word(&offset, stream) &&
                     std::fseek(stream, start + long{offset}, SEEK_SET) == 0 &&
                     read_raw(bytes, sizeof bytes, stream) && std::memcmp(bytes, "PE\0\0", 4) == 0;
  return found ? 0 : 1;
}

int32_t read_pecoff_fileheader(pe::file_header* record, std::FILE* stream) {
  const bool good = half(&record->f_magic, stream) && half(&record->f_nscns, stream) &&
                    word(&record->f_timdat, stream) && word(&record->f_symptr, stream) &&
                    word(&record->f_nsyms, stream) && half(&record->f_opthdr, stream) &&
                    half(&record->f_flags, stream);
  return good ? 0 : 1;
}

void write_pecoff_fileheader(const pe::file_header* record, std::FILE* stream) {
  write_header(stream, record->f_magic, record->f_nscns, record->f_timdat, record->f_symptr,
               record->f_nsyms, record->f_opthdr, record->f_flags);
}

int32_t read_pecoff_optheader(pe::optional_header* record, int32_t size, std::FILE* stream) {
  *record = {};
  const bool good = read_standard_fields(record, stream) &&
                    (size < pe::kWindowsSize ||
                     (read_windows_fields(record, stream) && read_data_directory(record, stream)));
  return good ? 0 : 1;
}

void write_pecoff_optheader(const pe::optional_header* record, int32_t size, std::FILE* stream) {
  PUTSHORT(record->Magic, stream);
  PUTCHAR(record->MajorLinkerVersion, stream);
  PUTCHAR(record->MinorLinkerVersion, stream);
  for (const uint32_t value :
       {record->SizeOfCode, record->SizeOfInitializedData, record->SizeOfUninitializedData,
        record->AddressOfEntryPoint, record->BaseOfCode}) {
    PUTINT(value, stream);
  }
  if (record->Magic == pe::kPe32) {
    PUTINT(record->BaseOfData, stream);
  }
  if (size >= pe::kWindowsSize) {
    write_windows_fields(record, stream);
    write_data_directory(record, stream);
  }
}

void free_pecoff_optheader(pe::optional_header* record) {
  while (record->extra != nullptr) {
    pe::image_dir_entry* const next = record->extra->next;
    std::free(record->extra);
    record->extra = next;
  }
  record->fixed[pe::kFixedEntries - 1].next = nullptr;
}

int32_t read_pecoff_scnhdr(pe::section_header* record, std::FILE* stream) {
  const bool good =
      read_raw(record->Name, sizeof record->Name, stream) && word(&record->VirtualSize, stream) &&
      word(&record->VirtualAddress, stream) && word(&record->SizeOfRawData, stream) &&
      word(&record->PointerToRawData, stream) && word(&record->PointerToRelocations, stream) &&
      word(&record->PointerToLinenumbers, stream) && half(&record->NumberOfRelocations, stream) &&
      half(&record->NumberOfLinenumbers, stream) && word(&record->Characteristics, stream);
  return good ? 0 : 1;
}

void write_pecoff_scnhdr(const pe::section_header* record, std::FILE* stream) {
  std::fwrite(record->Name, 1, sizeof record->Name, stream);
  for (const uint32_t value :
       {record->VirtualSize, record->VirtualAddress, record->SizeOfRawData,
        record->PointerToRawData, record->PointerToRelocations, record->PointerToLinenumbers}) {
    PUTINT(value, stream);
  }
  PUTSHORT(record->NumberOfRelocations, stream);
  PUTSHORT(record->NumberOfLinenumbers, stream);
  PUTINT(record->Characteristics, stream);
}

int32_t read_pecoff_debug_dir(pe::debug_directory* record, std::FILE* stream) {
  const bool good = word(&record->Characteristics, stream) &&
                    word(&record->TimeDateStamp, stream) && half(&record->MajorVersion, stream) &&
                    half(&record->MinorVersion, stream) && word(&record->Type, stream) &&
                    word(&record->SizeOfData, stream) && word(&record->AddressOfRawData, stream) &&
                    word(&record->PointerToRawData, stream);
  return good ? 0 : 1;
}

void write_pecoff_debug_dir(const pe::debug_directory* record, std::FILE* stream) {
  PUTINT(record->Characteristics, stream);
  PUTINT(record->TimeDateStamp, stream);
  PUTSHORT(record->MajorVersion, stream);
  PUTSHORT(record->MinorVersion, stream);
  for (const uint32_t value :
       {record->Type, record->SizeOfData, record->AddressOfRawData, record->PointerToRawData}) {
    PUTINT(value, stream);
  }
}

uint32_t calc_sizeof_rawdata_in_pecoff_section(const pe::section_header* section) {
  const auto in_memory = static_cast<int32_t>(section->VirtualSize);
  const auto in_file = static_cast<int32_t>(section->SizeOfRawData);
  if (section->PointerToRawData == 0 || (in_memory == 0 && in_file == 0)) {
    return 0;
  }
  return in_memory == 0 || in_memory >= in_file ? section->SizeOfRawData : section->VirtualSize;
}

}  // namespace kelvane
