#include "indmagic.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>

#include "byte_order.h"
#include "byte_reader.h"
#include "elf32.h"
#include "indelfio.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_path.h"
#include "indmagic_internal.h"
#include "indmagic_tables.h"
#include "indview.h"

namespace kelvane {

file_magic magic = {};

void reset_indmagic() {
  magic = {};
}

namespace {

// The start of the object, as far as any rule but those for ELF and PE looks.
constexpr size_t kHeadSize = 32;

// Where the header of a COFF file has its flags, and their bits.
constexpr size_t kCoffHeaderSize = 20;
constexpr size_t kCoffFlags = 18;
constexpr uint32_t kCoffStripped = 0x0001;  // of relocations
constexpr uint32_t kCoffExecutable = 0x0002;
constexpr uint32_t kCoffAlpha32 = 0x0100;
constexpr uint32_t kPeLibrary = 0x2000;
// Where a PE file has the offset of its signature, behind which a COFF header stands.
constexpr size_t kPeOffset = 60;
constexpr std::string_view kPeSignature("PE\0\0", 4);

constexpr uint16_t kTricore = 44;  // e_machine; its headers are little-endian, its data are told

// The object to identify.
struct Object {
  std::FILE* stream;
  const char* name;  // null for a member
  ByteReader reader;
  std::array<uint8_t, kHeadSize> head = {};  // zeros behind its end
  size_t head_size = 0;

  bool begins(std::string_view bytes) const {
    return std::memcmp(head.data(), bytes.data(), bytes.size()) == 0;
  }
  std::span<const uint8_t, 4> first_four() const { return std::span(head).first<4>(); }
};

void set_class(int32_t file_class, int32_t machine) {
  magic.file_class = file_class;
  magic.machine = machine;
}

void set_tool_chain_data(int32_t machine) {
  set_class(file_kind::kToolChainData, machine);
  magic.object_kind = object_kind::kDataFile;
}

bool identify_archive(const Object& object) {
  if (!object.begins("!<ar") && !object.begins("!<el") && !object.begins("<aia")) {
    return false;
  }
  if (object.begins("!<arch>\n")) {
    set_class(file_kind::kArchive, machine_key::kNone);
  } else if (object.begins("<aiaff>\n")) {
    set_class(file_kind::kAixArchive, machine_key::kNone);
  } else if (object.begins("!<elfa>\n")) {
    set_class(file_kind::kElfArchive, machine_key::kNone);
  } else {
    if (object.begins("!<arch>\r\n") || object.begins("!<elfa>\r\n") ||
        object.begins("<aiaff>\r\n")) {
      gen_error(
          "archive file '%s' has had carriage-returns (\\r) inserted before new-lines (\\n) and is "
          "unusable",
          object.name != nullptr ? object.name : "(null)");
    }
    set_class(file_kind::kUnknown, machine_key::kNone);
  }
  return true;
}

bool identify_tool_chain_data(const Object& object) {
  if (!object.begins("\x7FQVR")) {
    return false;
  }
  magic.code = load_word(object.head.data() + 8, ByteOrder::big);
  const auto row = std::ranges::find(data_list, magic.code, &data_kind::type);
  if (row != data_list.end() && row->type != 0) {
    set_tool_chain_data(row->machine);
  } else {
    set_class(file_kind::kUnknown, machine_key::kNone);
    magic.object_kind = object_kind::kUnknown;
  }
  return true;
}

bool identify_other_library(const Object& object) {
  if (object.begins({"\0\0\x02\x58", 4})) {
    set_class(file_kind::kOasysLibrary, machine_key::kNone);
    return true;
  }
  if (object.begins({"\0\0\xFF\xFF", 4})) {
    set_class(file_kind::kImportLibrary, machine_key::kNone);
    return true;
  }
  return false;
}

// The words are compared as this machine has them.
bool identify_resource(const Object& object) {
  constexpr std::array<uint32_t, 8> kFirstWords = {0, 32, 0xFFFF, 0xFFFF, 0, 0, 0, 0};
  static_assert(sizeof kFirstWords == kHeadSize);
  if (object.head_size < kHeadSize ||
      std::memcmp(object.head.data(), kFirstWords.data(), kHeadSize) != 0) {
    return false;
  }
  set_class(file_kind::kResource, machine_key::kWindowsResource);
  return true;
}

// Reads the header with failures kept from ending the run; one that can't be read costs the machine
// alone.
elf32::file_header read_elf_header(Object& object, bool* failed) {
  struct ErrorsKept {
    int32_t* const before = elf_geterrorcondaddr();
    ErrorsKept() = default;
    ErrorsKept(const ErrorsKept&) = delete;
    ErrorsKept& operator=(const ErrorsKept&) = delete;
    ~ErrorsKept() { errorcode = before; }
  };
  const ErrorsKept kept;
  int32_t failure = 0;
  elf_seterrorcond(&failure);
  elf32::file_header header = {};
  object.reader.seek(0);
  elf_readheader(object.stream, &header);
  *failed = failure != 0;
  return header;
}

bool identify_elf(Object& object) {
  if (!object.begins("\x7F"
                     "ELF")) {
    return false;
  }
  bool failed = false;
  const elf32::file_header header = read_elf_header(object, &failed);
  const uint32_t e_machine = failed ? 0 : header.e_machine;
  const auto row = std::ranges::find_if(elf_list, [&](const elf_kind& kind) {
    return kind.e_machine == e_machine &&
           (kind.mask == 0 || (header.e_flags & kind.mask) == kind.value);
  });
  const elf_kind& kind = row != elf_list.end() ? *row : elf_list.back();
  magic.code = e_machine;
  magic.machine = kind.machine;
  magic.flag3 = kind.flag3;
  magic.flag4 = kind.flag4;
  magic.family = kind.family;
  magic.short_name = kind.short_name;
  magic.big_endian = header.e_ident[elf32::EI_DATA] == elf32::ELFDATA2LSB ? 0 : 1;
  magic.flag1 = e_machine == kTricore ? 0 : magic.big_endian;
  magic.file_class = file_kind::kElf;
  magic.symbol_size = 0;
  magic.flags = static_cast<int32_t>(header.e_flags);
  magic.object_kind =
      header.e_type >= object_kind::kRelocatable && header.e_type <= object_kind::kCore
          ? header.e_type
          : object_kind::kUnknown;
  return true;
}

// The row of coff_list for two bytes, or null.
const coff_kind* find_coff_kind(const uint8_t* bytes) {
  const auto row = std::ranges::find_if(coff_list, [bytes](const coff_kind& kind) {
    return kind.code != 0 && kind.first == bytes[0] && kind.second == bytes[1];
  });
  return row != coff_list.end() ? &*row : nullptr;
}

void set_coff_machine(const coff_kind& kind) {
  magic.machine = kind.machine;
  magic.flag1 = kind.flag1;
  magic.big_endian = kind.big_endian;
  magic.flag3 = kind.flag3;
  magic.flag4 = kind.flag4;
  magic.family = kind.family;
}

void set_coff_flags(const uint8_t* coff_header) {
  const uint16_t flags = load_half(coff_header + kCoffFlags, byte_order_of(magic.big_endian != 0));
  magic.flags = static_cast<int16_t>(flags);
  if (magic.file_class == file_kind::kPe && (flags & kPeLibrary) != 0) {
    magic.object_kind = object_kind::kShared;
  } else if ((flags & kCoffExecutable) != 0) {
    magic.object_kind = object_kind::kExecutable;
  } else {
    magic.object_kind =
        (flags & kCoffStripped) != 0 ? object_kind::kUnknown : object_kind::kRelocatable;
  }
}

// Follows the offset in an MZ header to the signature and the COFF header behind it. Gives false if
// there is no signature.
bool read_pe_header(Object& object) {
  object.reader.seek(kPeOffset);
  const uint32_t signature_offset = object.reader.u32();
  object.reader.seek(signature_offset);
  std::array<uint8_t, kPeSignature.size()> signature{};
  if (!object.reader.read(signature) ||
      std::memcmp(signature.data(), kPeSignature.data(), signature.size()) != 0) {
    return false;
  }
  std::array<uint8_t, kCoffHeaderSize> header{};
  const size_t present = std::min<uint64_t>(header.size(), object.reader.rest());
  object.reader.read(std::span(header).first(present));
  if (const coff_kind* const kind = find_coff_kind(header.data())) {
    set_coff_machine(*kind);
  }
  set_coff_flags(header.data());
  return true;
}

enum class Found : uint8_t { no, yes, broken };

Found identify_coff(Object& object) {
  const coff_kind* const kind = find_coff_kind(object.head.data());
  if (kind == nullptr) {
    return Found::no;
  }
  magic.code = kind->code;
  set_coff_machine(*kind);
  magic.file_class = kind->file_class;
  magic.symbol_size = kind->symbol_size;
  if (kind->file_class == file_kind::kPe) {
    return read_pe_header(object) ? Found::yes : Found::broken;
  }
  set_coff_flags(object.head.data());
  return Found::yes;
}

// What is known by its name or its first bytes alone, if no table of magic numbers has it.
void identify_by_rules(const Object& object) {
  if (gen_issuffix(object.name, ".pro") || gen_issuffix(object.name, ".dbp")) {
    set_class(file_kind::kProfileData, machine_key::kProfileData);
  } else {
    magic.file_class = file_kind::kUnknown;
  }
  const uint32_t either = object.head[0] | object.head[1];
  const auto som = std::ranges::find_if(som_list, [&](const som_kind& kind) {
    return kind.code != 0 && std::ranges::equal(kind.bytes, object.first_four());
  });
  if (either == 1 || either == 2 || either == 4) {
    set_tool_chain_data(machine_key::kPostMortemData);
  } else if (either == 3) {
    set_tool_chain_data(machine_key::kLiveData);
  } else if (object.begins({"INT\0", 4})) {
    set_tool_chain_data(machine_key::kRawEventStream);
  } else if (som != som_list.end()) {
    set_class(file_kind::kSom, som->machine);
    magic.code = som->code;
    magic.family = som->family;
    magic.object_kind = object_kind::kExecutable;
    magic.flag1 = 1;
    magic.big_endian = 1;
    magic.flag3 = 0;
    magic.flag4 = 0;
    magic.symbol_size = 0;
    magic.flags = 0;
  }
}

void identify_rest(const Object& object) {
  const auto row = std::ranges::find_if(bsd_list, [&](const bsd_kind& kind) {
    return kind.code != 0 && std::ranges::equal(kind.bytes, object.first_four());
  });
  const bool known = row != bsd_list.end();
  const bsd_kind& kind = known ? *row : bsd_list.back();
  magic.code = kind.code;
  magic.machine = kind.machine;
  magic.family = kind.family;
  magic.flag1 = kind.big_endian;
  magic.big_endian = kind.big_endian;
  magic.flag3 = 1;
  magic.flag4 = kind.flag4;
  magic.flags = 0;
  magic.object_kind = object_kind::kUnknown;
  if (known) {
    magic.symbol_size = 12;
    magic.file_class = file_kind::kAout;
  } else {
    magic.symbol_size = 0;
    identify_by_rules(object);
  }
}

// Fills `magic`, and gives false for a broken PE file. The order of the rules counts: a resource
// file also begins like nothing, and bytes like 0 and 1 also begin a.out files.
bool identify(Object& object) {
  if (!identify_archive(object) && !identify_tool_chain_data(object) &&
      !identify_other_library(object) && !identify_resource(object) && !identify_elf(object)) {
    switch (identify_coff(object)) {
      case Found::yes:
        break;
      case Found::no:
        identify_rest(object);
        break;
      case Found::broken:
        return false;
    }
  }
  magic.first_bytes[0] = object.head[0];
  magic.first_bytes[1] = object.head[1];
  if (magic.machine == machine_key::kAlpha &&
      (static_cast<uint32_t>(magic.flags) & kCoffAlpha32) == 0) {
    magic.file_class = file_kind::kCoffLongSymbols;
    magic.symbol_size = 24;
  }
  if (magic.machine == machine_key::kNone && magic.file_class != file_kind::kElf &&
      magic.file_class != file_kind::kToolChainData) {
    magic.code = load_half(magic.first_bytes, ByteOrder::little);
  }
  return true;
}

}  // namespace

const file_magic* indmagic(std::FILE* stream, const char* name) {
  file_ptr opened;
  if (stream == nullptr) {
    opened.reset(gen_fopen(name, "r"));
    stream = opened.get();
    if (stream == nullptr) {
      return nullptr;
    }
  }
  const long start = std::ftell(stream);
  Object object = {.stream = stream, .name = name, .reader = {stream, ByteOrder::little}};
  object.head_size = std::min<uint64_t>(kHeadSize, object.reader.rest());
  object.reader.read(std::span(object.head).first(object.head_size));
  magic.short_name = nullptr;
  const bool found = identify(object);
  std::fseek(stream, start, SEEK_SET);
  return found ? &magic : nullptr;
}

const char* machinename(int32_t machine) {
  const auto row = std::ranges::find(name_list, machine, &machine_name::machine);
  return row != name_list.end() ? row->text : name_list.back().text;
}

uint32_t read4bytes(std::FILE* stream, bool big_endian) {
  return ByteReader(stream, 4, byte_order_of(big_endian)).u32();
}

int16_t read2bytes(std::FILE* stream, bool big_endian) {
  return ByteReader(stream, 2, byte_order_of(big_endian)).i16();
}

}  // namespace kelvane
