#pragma once

#include <cstdint>
#include <cstdio>

// What a file or an archive member is, by its first bytes: which format, for which processor, in
// which byte order. The tables in indmagic_tables.h name far more formats than are compared; they
// are the common vocabulary of the file kinds of the target tool chain.
namespace kelvane {

// Values of file_magic::file_class.
namespace file_kind {
inline constexpr int32_t kAout = 1;
inline constexpr int32_t kCoff = 2;
inline constexpr int32_t kElf = 3;
inline constexpr int32_t kCoffLongSymbols = 4;  // symbols of 24 bytes
inline constexpr int32_t kCoffPowerPc = 5;
inline constexpr int32_t kPe = 6;
inline constexpr int32_t kCoffPaRisc = 7;
inline constexpr int32_t kArchive = 8;
inline constexpr int32_t kToolChainData = 9;
inline constexpr int32_t kOasysLibrary = 10;
inline constexpr int32_t kImportLibrary = 11;
inline constexpr int32_t kAixArchive = 12;
inline constexpr int32_t kProfileData = 13;
inline constexpr int32_t kResource = 14;
inline constexpr int32_t kSom = 15;
inline constexpr int32_t kElfArchive = 16;
inline constexpr int32_t kUnknown = 17;
}  // namespace file_kind

// Values of file_magic::object_kind.
namespace object_kind {
inline constexpr int32_t kUnknown = 0;
inline constexpr int32_t kRelocatable = 1;
inline constexpr int32_t kExecutable = 2;
inline constexpr int32_t kShared = 3;
inline constexpr int32_t kCore = 4;
inline constexpr int32_t kDataFile = 5;  // of the tool chain
}  // namespace object_kind

// What is known of a file. Unsigned bytes are flags.
struct file_magic {
  uint8_t first_bytes[2];  // of the file
  uint32_t code;    // magic number as the table has it, e_machine, or the type of a data file
  int32_t machine;  // key for machinename; 0 for none
  uint8_t flag1;
  uint8_t big_endian;  // the headers of the file are
  uint8_t flag3;
  uint8_t flag4;
  int32_t family;          // of the processor
  const char* short_name;  // of the processor, static; null where the table has none
  int32_t file_class;      // a value of file_kind
  int32_t symbol_size;     // bytes of an entry of the symbol table; 0 where the format tells itself
  int32_t flags;           // of the file header; of COFF a sign-extended half
  int32_t object_kind;     // a value of object_kind
};

// The last identification. Written by indmagic, which doesn't clear it first: a field that means
// nothing for a kind of file keeps what it had.
extern file_magic magic;

// Identifies the object at which `stream` stands, and leaves the stream there; `name` serves for
// the suffixes that tell a kind and for a message, and may be null. With a null `stream` it opens
// the file `name` itself. Gives `magic`, which the next call overwrites, or null for a file that
// can't be opened and for one that begins like a PE file and isn't one. An unknown file is of
// class 17. Bytes that a short file lacks count as 0. Reports "archive file '%s' has had
// carriage-returns (\r) inserted before new-lines (\n) and is unusable" and never ends the run.
const file_magic* indmagic(std::FILE* stream, const char* name);

// The printable name for file_magic::machine; "unknown machine type" for 0 and unknown ones.
const char* machinename(int32_t machine);

// Read an integer in the order told, whatever the file read last had; 0 if the file ends before.
uint32_t read4bytes(std::FILE* stream, bool big_endian);
int16_t read2bytes(std::FILE* stream, bool big_endian);

}  // namespace kelvane
