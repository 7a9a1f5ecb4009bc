#pragma once

#include <cstdint>
#include <cstdio>

// The headers of PE COFF images (Windows executables) in the forms PE32 and PE32+: found in a file,
// read, written, and printed on standard output. Sections and symbols are not loaded.
//
// An image begins with "MZ" and has at byte 60 the offset of its signature "PE\0\0". Behind that
// stand the file header, the optional header (whose size is f_opthdr), and the section headers.
//
// All numbers go through the primitives of comcoff.h. The format is little-endian, so the caller
// sets `bigendian` to 0 first. Nothing here gives a message. Readers begin where the stream stands
// and give 0, or 1 at the first field that can't be read; the fields behind it aren't stored. What
// a writer can't write shows in the stream.
namespace kelvane {

namespace pe {

// Values of optional_header::Magic.
inline constexpr uint32_t kPe32 = 267;
inline constexpr uint32_t kPe32Plus = 523;

struct file_header {
  uint16_t f_magic;   // Machine
  uint16_t f_nscns;   // NumberOfSections
  uint32_t f_timdat;  // TimeDateStamp
  uint32_t f_symptr;  // PointerToSymbolTable
  uint32_t f_nsyms;   // NumberOfSymbols
  uint16_t f_opthdr;  // SizeOfOptionalHeader
  uint16_t f_flags;   // Characteristics
};

// An entry of the data directory.
struct image_dir_entry {
  uint32_t address;
  uint32_t size;
  image_dir_entry* next;  // not in the file
};

// Entries that have a meaning of their own, in the order of the file.
inline constexpr uint32_t kFixedEntries = 16;

// The optional header. Wider fields than the file's: Magic, Subsystem, and in PE32 ImageBase and
// the four sizes of stack and heap.
struct optional_header {
  uint32_t Magic;
  uint8_t MajorLinkerVersion;
  uint8_t MinorLinkerVersion;
  uint32_t SizeOfCode;
  uint32_t SizeOfInitializedData;
  uint32_t SizeOfUninitializedData;
  uint32_t AddressOfEntryPoint;
  uint32_t BaseOfCode;
  uint32_t BaseOfData;  // PE32 only
  // What follows is there only in a header of kWindowsSize bytes and more.
  uint64_t ImageBase;
  uint32_t SectionAlignment;
  uint32_t FileAlignment;
  uint16_t MajorOperatingSystemVersion;
  uint16_t MinorOperatingSystemVersion;
  uint16_t MajorImageVersion;
  uint16_t MinorImageVersion;
  uint16_t MajorSubsystemVersion;
  uint16_t MinorSubsystemVersion;
  uint32_t Win32VersionValue;
  uint32_t SizeOfImage;
  uint32_t SizeOfHeaders;
  uint32_t CheckSum;
  uint32_t Subsystem;
  uint16_t DllCharacteristics;
  uint64_t SizeOfStackReserve;
  uint64_t SizeOfStackCommit;
  uint64_t SizeOfHeapReserve;
  uint64_t SizeOfHeapCommit;
  uint32_t LoaderFlags;
  uint32_t NumberOfRvaAndSizes;
  // Filled only if NumberOfRvaAndSizes is 16 or more, and then linked in order, the last to
  // `extra`.
  image_dir_entry fixed[kFixedEntries];
  // All other entries, from calloc, owned; with a number below 16 all of them. Null for none.
  image_dir_entry* extra;
};
inline constexpr int32_t kWindowsSize = 92;

struct section_header {
  char Name[8];  // padded with zeros, without one if all 8 are used
  uint32_t VirtualSize;
  uint32_t VirtualAddress;
  uint32_t SizeOfRawData;
  uint32_t PointerToRawData;
  uint32_t PointerToRelocations;
  uint32_t PointerToLinenumbers;
  uint16_t NumberOfRelocations;
  uint16_t NumberOfLinenumbers;
  uint32_t Characteristics;
};

struct debug_directory {
  uint32_t Characteristics;
  uint32_t TimeDateStamp;
  uint16_t MajorVersion;
  uint16_t MinorVersion;
  uint32_t Type;
  uint32_t SizeOfData;
  uint32_t AddressOfRawData;
  uint32_t PointerToRawData;
};

}  // namespace pe

// Takes the stream from the start of an image to its file header. Gives 0, or 1 if it can't get
// there or the file isn't one.
int32_t skip_to_pecoff_fileheader(std::FILE* stream);

int32_t read_pecoff_fileheader(pe::file_header* record, std::FILE* stream);
void write_pecoff_fileheader(const pe::file_header* record, std::FILE* stream);
void print_pecoff_fileheader(const pe::file_header* record);

// `size` is f_opthdr. The reader first clears the record, releasing nothing, and the entries in
// `extra` are the caller's to release by free_pecoff_optheader; a failed read leaves none. More
// entries than the file has bytes for are a failed read, before memory is asked for. The record's
// entries are linked to each other, so a copy of it isn't one of its own.
int32_t read_pecoff_optheader(pe::optional_header* record, int32_t size, std::FILE* stream);
void write_pecoff_optheader(const pe::optional_header* record, int32_t size, std::FILE* stream);
void print_pecoff_optheader(const pe::optional_header* record, int32_t size);
// Releases the extra entries.
void free_pecoff_optheader(pe::optional_header* record);

// Printers print nothing for a null record.
int32_t read_pecoff_scnhdr(pe::section_header* record, std::FILE* stream);
void write_pecoff_scnhdr(const pe::section_header* record, std::FILE* stream);
void print_pecoff_scnhdr(const pe::section_header* record);

int32_t read_pecoff_debug_dir(pe::debug_directory* record, std::FILE* stream);
void write_pecoff_debug_dir(const pe::debug_directory* record, std::FILE* stream);
void print_pecoff_debug_dir(const pe::debug_directory* record);

// The number of bytes of the section that the file holds: the smaller of its two sizes, a
// VirtualSize of 0 meaning that it isn't given.
uint32_t calc_sizeof_rawdata_in_pecoff_section(const pe::section_header* section);

// The text for f_magic, "UNKNOWN MACHINE" where there is none, and for the Type of a debug
// directory entry, "???" where there is none. Static.
const char* pecoff_machinename(uint32_t machine);
const char* pecoff_debug_dir_type_name(uint32_t type);

// Prints an entry in three lines, the first being `label` and the others behind `indent`. A null
// `entry` prints nothing.
void print_image_data(const char* label, const pe::image_dir_entry* entry, const char* indent);

// Prints the names of flags in parentheses, highest bit first, "REG" for none, without a line end.
void print_pecoff_section_flags(uint32_t flags);

}  // namespace kelvane
