// PE headers as text on standard output.
#include <algorithm>
#include <array>
#include <cinttypes>
#include <ctime>

#include "pecoff.h"
#include "pecoff_internal.h"

namespace kelvane {

namespace {

// Number and text of what a field may hold.
struct Name {
  uint32_t number;
  const char* text;
};

// clang-format off
constexpr Name kMachines[] = {
    {0, "ANY_MACHINE"}, {0x14C, "I386"},    {0x162, "R3000"},   {0x166, "R4000"},
    {0x168, "R10000"},  {0x184, "ALPHA"},   {0x1A2, "SH3"},     {0x1A6, "SH4"},
    {0x1C0, "ARM"},     {0x1C2, "THUMB"},   {0x1F0, "POWERPC"}, {0x200, "IA64"},
    {0x266, "MIPS16"},  {0x268, "M68K"},    {0x284, "ALPHA64"}, {0x366, "MIPSFPU"},
    {0x466, "MIPSFPU16"},
};

constexpr Name kSubsystems[] = {
    {0, "(UNKNOWN)"},          {1, "(NATIVE)"},
    {2, "(WINDOWS_GUI)"},      {3, "(WINDOWS_CUI)"},
    {7, "(POSIX_CUI)"},        {9, "(WINDOWS_CE_GUI)"},
    {10, "(EFI_APPLICATION)"}, {11, "(EFI_BOOT_SERVICE_DRIVER)"},
    {12, "(EFI_RUNTIME_DRIVER)"},
};

constexpr Name kDebugTypes[] = {
    {0, "UNKNOWN"}, {1, "COFF"},        {2, "CODEVIEW"},      {3, "FPO"},     {4, "MISC"},
    {5, "EXCEPTION"}, {6, "FIXUP"},     {7, "OMAP_TO_SRC"},   {8, "OMAP_FROM_SRC"},
    {9, "BORLAND"},
};

// Bits of DllCharacteristics, in the order in which they are printed.
constexpr Name kDllBits[] = {
    {0x0800, "NOBIND"}, {0x2000, "WDM_DRIVER"}, {0x8000, "TERMINAL_SERVER_AWARE"},
};

// By bit number, from 0 on.
constexpr std::array<const char*, 16> kFileBits = {
    "RELOCS_STRIPPED",    "EXECUTABLE_IMAGE",    "LINE_NUMS_STRIPPED",
    "LOCAL_SYMS_STRIPPED", "AGGRESSIVE_WS_TRIM", "LARGE_ADDRESS_AWARE",
    "16BIT_MACHINE",      "LITTLE_ENDIAN",       "32BIT_MACHINE",
    "DEBUG_STRIPPED",     "FILE_REMOVABLE_RUN_FROM_SWAP", "0x0800",
    "SYSTEM",             "DLL",                 "UP_SYSTEM_ONLY",
    "BIG_ENDIAN",
};

// The four empty ones from bit 20 on are the field of the alignment.
constexpr std::array<const char*, 32> kSectionBits = {
    "DSECT",          "NOLOAD",          "GROUP",      "NOPAD",
    "COPY",           "CODE",            "DATA",       "BSS",
    "OTHER",          "INFO",            "OVERLAY",    "LNK_REMOVE",
    "LNK_COMDAT",     "",                "",           "MEM_FARDATA",
    "",               "MEM_PURGEABLE",   "MEM_LOCKED", "MEM_PRELOAD",
    "",               "",                "",           "",
    "RELOC_OVERFLOW", "MEM_DISCARDABLE", "NOT_CACHED", "NOT_PAGED",
    "MEM_SHARED",     "MEM_EXECUTE",     "READ_ACCESS", "WRITE_ACCESS",
};

constexpr std::array<const char*, pe::kFixedEntries> kEntryLabels = {
    "  Exports",      "  Imports",              "  Resources",     "  Exceptions",
    "  Certificates", "  Base Relocations",     "  Debug",         "  Architecture",
    "  GlobalPtr",    "  Thread Local Storage", "  Load Config",   "  Bound Imports",
    "  Import Addresses", "  Delay Imports",    "  COMx Header",   "  Reserved",
};
// clang-format on

constexpr const char* kEntryIndent = "   ";
constexpr uint32_t kAlignmentBit = 20;  // the lowest of the field
constexpr uint32_t kAlignmentBits = 4;

template <size_t size>
const char* text_for(const Name (&names)[size], uint32_t number, const char* otherwise) {
  const Name* const found = std::ranges::find(names, number, &Name::number);
  return found != std::end(names) ? found->text : otherwise;
}

bool is_set(uint32_t flags, uint32_t bit) {
  return ((flags >> bit) & 1U) != 0;
}

// Items in parentheses with commas between them; nothing at all if there are none.
class ItemList {
 public:
  ItemList() = default;
  ItemList(const ItemList&) = delete;
  ItemList& operator=(const ItemList&) = delete;
  ~ItemList() { std::printf("%s", empty_ ? "" : ")"); }

  // Opens the list or prints the separator; the item follows.
  void next() {
    std::printf("%s", empty_ ? "(" : ",");
    empty_ = false;
  }
  void add(const char* item) {
    next();
    std::printf("%s", item);
  }

 private:
  bool empty_ = true;
};

void line(const char* label, uint32_t value) {
  print_num_line(label, value, "\n");
}

// The time in local words and a line end; null if it is none.
const char* time_text(uint32_t seconds) {
  const std::time_t time = seconds;
  return std::ctime(&time);
}

// One line for each bit, highest first.
void print_characteristics(uint32_t flags, const char* indent) {
  for (uint32_t bit = kFileBits.size(); bit-- > 0;) {
    if (is_set(flags, bit)) {
      std::printf("%s%s\n", indent, kFileBits[bit]);
    }
  }
}

void pr_subsystem(uint32_t subsystem) {
  std::printf("%s", text_for(kSubsystems, subsystem, ""));
}

void pr_dll_characteristics(uint32_t flags) {
  ItemList items;
  for (const Name& bit : kDllBits) {
    if ((flags & bit.number) != 0) {
      items.add(bit.text);
    }
  }
}

// All 64 bits and a line end.
void printlonglong(uint64_t value) {
  std::printf("0x%" PRIx64 "\n", value);
}

// A 32-bit value in one line, a 64-bit one with a line of its own and a second line end.
void print_size(const char* label, uint64_t value, bool has_32_bits) {
  std::printf("%s", label);
  if (has_32_bits) {
    std::printf("0x%x\n", static_cast<uint32_t>(value));
  } else {
    printlonglong(value);
    std::printf("\n");
  }
}

void print_windows_fields(const pe::optional_header* record) {
  const bool pe32 = record->Magic == pe::kPe32;
  print_size("Image Base    = ", record->ImageBase, pe32);
  line("Section Align =", record->SectionAlignment);
  line("File Align    =", record->FileAlignment);
  std::printf("OS Version    = %d.%d\n", record->MajorOperatingSystemVersion,
              record->MinorOperatingSystemVersion);
  std::printf("Image Version = %d.%d\n", record->MajorImageVersion, record->MinorImageVersion);
  std::printf("Subsystem Ver = %d.%d\n", record->MajorSubsystemVersion,
              record->MinorSubsystemVersion);
  line("Reserved      =", record->Win32VersionValue);
  line("Image Size    =", record->SizeOfImage);
  line("Header Sizes  =", record->SizeOfHeaders);
  line("CheckSum      =", record->CheckSum);
  std::printf("Subsystem     = %d ", static_cast<int32_t>(record->Subsystem));
  pr_subsystem(record->Subsystem);
  std::printf("\nDLL flags     = 0x%.4x ", static_cast<uint32_t>(record->DllCharacteristics));
  pr_dll_characteristics(record->DllCharacteristics);
  std::printf("\n");
  print_size("Stack Reserve = ", record->SizeOfStackReserve, pe32);
  print_size(pe32 ? "Stack Commit  = " : "Stack Commit = ", record->SizeOfStackCommit, pe32);
  print_size(pe32 ? "Heap Reserve  = " : "Heap Reserve = ", record->SizeOfHeapReserve, pe32);
  print_size(pe32 ? "Heap Commit   = " : "Heap Commit = ", record->SizeOfHeapCommit, pe32);
  line("Loader Flags  =", record->LoaderFlags);
}

void print_data_directory(const pe::optional_header* record) {
  std::printf("Directories   = %d\n", static_cast<int32_t>(record->NumberOfRvaAndSizes));
  if (record->NumberOfRvaAndSizes >= pe::kFixedEntries) {
    for (uint32_t i = 0; i < pe::kFixedEntries; ++i) {
      print_image_data(kEntryLabels[i], &record->fixed[i], kEntryIndent);
    }
  }
  for (const pe::image_dir_entry* entry = record->extra; entry != nullptr; entry = entry->next) {
    print_image_data("  Extra", entry, kEntryIndent);
  }
}

}  // namespace

void print_num_line(const char* label, uint32_t value, const char* suffix) {
  const auto number = static_cast<int32_t>(value);
  std::printf("%s ", label != nullptr ? label : "");
  if (number >= 0 && number <= 9) {
    std::printf("%d", number);
  } else {
    std::printf("0x%x (%d)", value, number);
  }
  if (suffix == nullptr || *suffix == '\0') {
    std::printf("\n");
  } else {
    std::printf(" %s", suffix);
  }
}

void print_pecoff_fileheader(const pe::file_header* record) {
  const uint32_t machine = record->f_magic;
  std::printf("f_magic  = 0x%x = 0%o (%s)\n", machine, machine, pecoff_machinename(machine));
  std::printf("f_nscns  = %d\n", record->f_nscns);
  print_num_line("f_timdat =", record->f_timdat, time_text(record->f_timdat));
  line("f_symptr =", record->f_symptr);
  line("f_nsyms  =", record->f_nsyms);
  line("f_opthdr =", record->f_opthdr);
  std::printf("f_flags  = 0x%x\n", static_cast<uint32_t>(record->f_flags));
  print_characteristics(record->f_flags, "\t   ");
}

void print_pecoff_optheader(const pe::optional_header* record, int32_t size) {
  const bool pe32 = record->Magic == pe::kPe32;
  std::printf("Magic         = 0x%x = 0%o (%s)\n", record->Magic, record->Magic,
              pe32 ? "PE32" : "PE32+");
  std::printf("LINK Ver      = %d.%d\n", record->MajorLinkerVersion, record->MinorLinkerVersion);
  line("Code Size     =", record->SizeOfCode);
  line("Data Size     =", record->SizeOfInitializedData);
  line("Bss Size      =", record->SizeOfUninitializedData);
  line("entry point   =", record->AddressOfEntryPoint);
  line("text start    =", record->BaseOfCode);
  if (pe32) {
    line("data start    =", record->BaseOfData);
  }
  if (size >= pe::kWindowsSize) {
    print_windows_fields(record);
    print_data_directory(record);
  }
}

void print_pecoff_scnhdr(const pe::section_header* record) {
  if (record == nullptr) {
    return;
  }
  std::printf("Name             = %-8.8s", record->Name);
  line("Sizeof Data in memory =", record->VirtualSize);
  line("VirtualAddress        =", record->VirtualAddress);
  line("Sizeof Data in file   =", record->SizeOfRawData);
  line("Ptr to Raw Data       =", record->PointerToRawData);
  line("Ptr to Relocations    =", record->PointerToRelocations);
  line("Ptr to Linenumbers    =", record->PointerToLinenumbers);
  line("# of Relocations      =", record->NumberOfRelocations);
  line("# of LineNumbers      =", record->NumberOfLinenumbers);
  print_num_line("Characteristics       =", record->Characteristics, "");
  print_pecoff_section_flags(record->Characteristics);
  std::printf("\n");
}

void print_pecoff_debug_dir(const pe::debug_directory* record) {
  if (record == nullptr) {
    return;
  }
  print_num_line("Characteristics     =", record->Characteristics, "");
  print_num_line("TimeDateStamp       =", record->TimeDateStamp, time_text(record->TimeDateStamp));
  std::printf("Version             = %d.%d\n", record->MajorVersion, record->MinorVersion);
  print_num_line("Type                =", record->Type, pecoff_debug_dir_type_name(record->Type));
  std::printf("\n");
  line("Size of data        =", record->SizeOfData);
  line("Address of raw data =", record->AddressOfRawData);
  line("Pointer to raw data =", record->PointerToRawData);
}

const char* pecoff_machinename(uint32_t machine) {
  return text_for(kMachines, machine, "UNKNOWN MACHINE");
}

const char* pecoff_debug_dir_type_name(uint32_t type) {
  return text_for(kDebugTypes, type, "???");
}

void print_image_data(const char* label, const pe::image_dir_entry* entry, const char* indent) {
  if (entry != nullptr) {
    std::printf("%s\n%s Address   = 0x%.8x\n%s Size      = 0x%.8x\n", label, indent, entry->address,
                indent, entry->size);
  }
}

void print_pecoff_section_flags(uint32_t flags) {
  if (flags == 0) {
    std::printf("REG");
    return;
  }
  ItemList items;
  const auto add_bits = [&items, flags](uint32_t highest, uint32_t lowest) {
    for (uint32_t bit = highest + 1; bit-- > lowest;) {
      if (is_set(flags, bit)) {
        items.add(kSectionBits[bit]);
      }
    }
  };
  add_bits(31, kAlignmentBit + kAlignmentBits);
  const uint32_t alignment = (flags >> kAlignmentBit) & ((1U << kAlignmentBits) - 1);
  if (alignment != 0) {
    items.next();
    std::printf("ALIGN_%d", 1 << (alignment - 1));
  }
  add_bits(kAlignmentBit - 1, 0);
}

}  // namespace kelvane
