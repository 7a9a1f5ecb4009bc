#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// The file kinds as data: who knows which magic number. Each list ends with a row for what no other
// row knows. Where two rows fit, the first one holds.
namespace kelvane {

// Key and printable name of a machine.
struct machine_name {
  int32_t machine;
  const char* text;
};

// A COFF-like format, found by the first two bytes of the file in the file's own order. `code` is
// the magic number; a few rows have another one than their bytes say.
struct coff_kind {
  uint8_t first;
  uint8_t second;
  uint32_t code;
  int32_t machine;
  uint8_t flag1;
  uint8_t big_endian;
  uint8_t flag3;
  uint8_t flag4;
  int32_t family;
  int32_t file_class;
  int32_t symbol_size;
};

// A machine of an ELF file: `e_machine` must agree, and, unless the mask is 0, those bits of
// `e_flags` that the mask has.
struct elf_kind {
  uint32_t e_machine;
  uint32_t mask;
  uint32_t value;
  int32_t machine;
  uint8_t flag3;
  uint8_t flag4;
  int32_t family;
  const char* short_name;
};

// An a.out format, found by the first four bytes of the file.
struct bsd_kind {
  uint8_t bytes[4];
  uint32_t code;
  int32_t machine;
  uint8_t big_endian;  // and flag1
  uint8_t flag4;
  int32_t family;
};

// A SOM format, found in the same way.
struct som_kind {
  uint8_t bytes[4];
  uint32_t code;
  int32_t machine;
  int32_t family;
};

// What the second word behind 0x7F "QVR", the type of the file, says of its contents.
struct data_kind {
  uint32_t type;
  int32_t machine;
};

// clang-format off
inline constexpr std::array name_list = std::to_array<machine_name>({
    {1, "Intel 8086"},
    {2, "Intel 8086"},
    {3, "Intel 80186"},
    {4, "Intel 80186"},
    {5, "Intel 80286"},
    {6, "Intel x86"},
    {7, "32000 Avalon"},
    {8, "Sun3 M68020"},
    {9, "SPARClite"},
    {10, "SPARC"},
    {11, "NEC V810"},
    {12, "NEC V850"},
    {13, "NEC V830"},
    {14, "SH"},
    {15, "SH"},
    {16, "SH (GNU COFF)"},
    {17, "QVR MIPS"},
    {18, "QVR MIPS"},
    {19, "AP/30"},
    {20, "M88000"},
    {21, "Gmicro"},
    {22, "M16"},
    {23, "VPU"},
    {24, "i860"},
    {25, "29000"},
    {26, "MIPS"},
    {27, "MIPS (big endian machine)"},
    {28, "Alpha AXP"},
    {29, "QVR i960"},
    {30, "80960"},
    {31, "80960"},
    {32, "QVR PowerPC"},
    {33, "PowerPC"},
    {34, "MC68000"},
    {35, "MC68000"},
    {36, "MC68000"},
    {37, "MC68000 (old)"},
    {38, "MC68000 (old)"},
    {39, "HP/PA"},
    {40, "DEC MIPS"},
    {41, "RS6000"},
    {42, "SPARC"},
    {43, "vxWorks x86"},
    {44, "vxWorks x86"},
    {45, "MC68000"},
    {46, "MC68000"},
    {47, "MC68000"},
    {48, "MC68000"},
    {49, "MC68000"},
    {50, "MC68010"},
    {51, "MC68010"},
    {52, "M88000"},
    {53, "VAX"},
    {54, "Intel x86"},
    {55, "Intel 486"},
    {56, "SPARC"},
    {57, "SPARC32PLUS"},
    {58, "M88000"},
    {59, "MIPS R4000"},
    {60, "TRW RH-32"},
    {61, "Fujitsu MMA"},
    {62, "MIPS R2000/R3000"},
    {63, "Fujitsu Risc"},
    {64, "Power PC"},
    {65, "NEC V810"},
    {66, "NEC V830"},
    {67, "NEC V850"},
    {68, "ARM"},
    {69, "SH"},
    {70, "SH-1"},
    {71, "SH-2"},
    {72, "SH-3"},
    {73, "SH-3E"},
    {74, "SH-4"},
    {75, "SH2-DSP"},
    {76, "SH3-DSP"},
    {77, "M32"},
    {78, "i860"},
    {79, "MC68000"},
    {80, "80960"},
    {81, "Tricore"},
    {82, "Tricore Rider A"},
    {83, "Tricore TC1v1.2"},
    {84, "Tricore TC1v1.3"},
    {85, "MIPS-X"},
    {86, "NEC V850E"},
    {87, "NEC V830R"},
    {88, "NEC V850F"},
    {89, "PCP"},
    {90, "MCORE"},
    {91, "nCPU"},
    {92, "Debug Info"},
    {93, "Debug Info"},
    {94, "Debug Info"},
    {95, "ARM"},
    {96, "NDR1"},
    {97, "ST-100"},
    {98, "TARVO Chronolens Event Stream"},
    {99, "TARVO Chronolens Event Stream Index"},
    {100, "LOAM Version Info"},
    {101, "Star*Core"},
    {102, "Javelin"},
    {103, "ZSP"},
    {104, "FirePath"},
    {105, "PDSP"},
    {106, "PA-RISC 1.1"},
    {107, "MAX"},
    {108, "M32R"},
    {109, "ARC"},
    {110, "TARVO Chronolens Post-Mortem Mode Data File"},
    {111, "TARVO Chronolens Live Mode Data File"},
    {112, "TARVO Profile Data File"},
    {113, "Blackfin"},
    {114, "Microsoft Windows Resource File"},
    {115, "TARVO Chronolens Raw Event Stream File"},
    {116, "Media Procesor"},
    {117, "kelvane patch"},
    {0, "unknown machine type"},
});

//   bytes       code    machine
//                            flag1, big_endian, flag3, flag4
//                                        family
//                                            file_class
//                                               symbol_size
inline constexpr std::array coff_list = std::to_array<coff_kind>({
    {0x44, 0x01, 0x0144,  1, 0, 0, 0, 0,  1, 2, 18},  // Intel 8086
    {0x45, 0x01, 0x0145,  2, 0, 0, 0, 0,  1, 2, 18},  // Intel 8086
    {0x46, 0x01, 0x0146,  3, 0, 0, 0, 0,  1, 2, 18},  // Intel 80186
    {0x47, 0x01, 0x0147,  4, 0, 0, 0, 0,  1, 2, 18},  // Intel 80186
    {0x4A, 0x01, 0x014a,  5, 0, 0, 0, 0,  1, 2, 18},  // Intel 80286
    {0x4C, 0x01, 0x014c,  6, 0, 0, 0, 1,  1, 2, 18},  // Intel x86
    {0x4D, 0x5A, 0x5a4d,  6, 0, 0, 0, 1,  1, 6, 18},  // Intel x86
    {0x11, 0x33, 0x1133,  9, 1, 1, 1, 1, 21, 2, 18},  // SPARClite
    {0xC2, 0x70, 0x70c2, 11, 0, 0, 1, 1,  3, 2, 18},  // NEC V810
    {0xC3, 0x70, 0x70c3, 12, 0, 0, 1, 1,  3, 2, 18},  // NEC V850
    {0xC4, 0x70, 0x70c4, 13, 0, 0, 1, 1,  3, 2, 18},  // NEC V830
    {0x05, 0x00, 0x0500, 16, 1, 1, 1, 1, 20, 2, 18},  // SH (GNU COFF)
    {0x71, 0xC2, 0x71c2, 14, 1, 1, 1, 1, 20, 2, 18},  // SH
    {0xC3, 0x71, 0x71c3, 15, 0, 0, 1, 1, 20, 2, 18},  // SH
    {0x01, 0x65, 0x0165, 17, 1, 1, 0, 0, 16, 2, 18},  // QVR MIPS
    {0x66, 0x01, 0x0166, 18, 0, 0, 0, 0, 16, 2, 18},  // QVR MIPS
    {0x62, 0x01, 0x0162, 26, 0, 0, 1, 0, 16, 2, 18},  // MIPS
    {0x01, 0x62, 0x0162, 27, 0, 0, 1, 0, 16, 2, 18},  // MIPS (big endian machine)
    {0x83, 0x01, 0x0183, 28, 0, 0, 0, 0,  5, 2, 18},  // Alpha AXP
    {0x02, 0x60, 0x0260, 29, 1, 1, 0, 1,  4, 2, 18},  // QVR i960
    {0x60, 0x01, 0x0160, 30, 0, 0, 0, 1,  4, 2, 24},  // 80960
    {0x01, 0x60, 0x0160, 31, 1, 1, 0, 1,  4, 2, 24},  // 80960
    {0x01, 0xC3, 0x01c3, 32, 1, 1, 1, 0, 19, 2, 18},  // QVR PowerPC
    {0x01, 0xC4, 0x01c4, 32, 1, 1, 1, 0, 19, 2, 18},  // QVR PowerPC
    {0x01, 0x50, 0x0150, 34, 1, 1, 0, 0,  2, 2, 18},  // MC68000
    {0x01, 0x51, 0x0151, 35, 1, 1, 0, 0,  2, 2, 18},  // MC68000
    {0x01, 0x52, 0x0152, 36, 1, 1, 0, 0,  2, 2, 18},  // MC68000
    {0x00, 0x88, 0x0088, 37, 1, 1, 0, 1,  2, 2, 18},  // MC68000 (old)
    {0x00, 0x89, 0x0088, 38, 1, 1, 0, 1,  2, 2, 18},  // MC68000 (old)
    {0x02, 0x0B, 0x020b, 39, 1, 1, 0, 1, 28, 7, 18},  // HP/PA
    {0x01, 0xDF, 0x01df, 33, 1, 1, 0, 1, 19, 5, 18},  // PowerPC
    {0x01, 0xDF, 0x01df, 41, 1, 1, 0, 1, 19, 2, 18},  // RS6000
    {0x0B, 0x01, 0x010b, 53, 0, 0, 0, 1,  0, 1, 18},  // VAX
    {0x00, 0x0A, 0x000a, 95, 0, 0, 0, 1,  7, 2, 18},  // ARM
    {0x0D, 0x01, 0x01d0, 30, 0, 0, 0, 1,  4, 2, 24},  // 80960
    {0x84, 0x01, 0x0184, 28, 0, 0, 0, 0,  5, 2, 18},  // Alpha AXP
    {0x01, 0xC0, 0x01c0, 95, 0, 0, 0, 1,  7, 2, 18},  // ARM
    {0x84, 0x02, 0x0284, 28, 0, 0, 0, 0,  5, 2, 18},  // Alpha AXP
    {0x02, 0x68, 0x0268, 34, 1, 1, 0, 0,  2, 2, 18},  // MC68000
    {0x02, 0x66, 0x0266, 17, 1, 1, 0, 0, 16, 2, 18},  // QVR MIPS
    {0x03, 0x66, 0x0366, 17, 1, 1, 0, 0, 16, 2, 18},  // QVR MIPS
    {0x04, 0x66, 0x0466, 22, 1, 1, 0, 0, 16, 2, 18},  // M16
    {0x01, 0xC2, 0x01c2, 95, 0, 0, 0, 1,  7, 2, 18},  // ARM
    {0x00, 0xC2, 0x00c2, 95, 0, 1, 1, 1,  7, 2, 18},  // ARM
    {0x00, 0x00, 0,      0,  0, 0, 0, 0, 0,  17, 18},  // end of table
});

//   e_machine
//          mask        value       machine
//                                       flag3, flag4
//                                             family
//                                                  short_name
inline constexpr std::array elf_list = std::to_array<elf_kind>({
    {3,     0,          0,           54, 0, 0, 1,  nullptr},  // Intel x86
    {6,     0,          0,           55, 0, 0, 1,  nullptr},  // Intel 486
    {2,     0,          0,           56, 1, 0, 21, nullptr},  // SPARC
    {18,    0,          0,           57, 1, 0, 21, nullptr},  // SPARC32PLUS
    {10,    0,          0,           59, 1, 0, 16, nullptr},  // MIPS R4000
    {38,    0,          0,           60, 1, 0, 16, nullptr},  // TRW RH-32
    {54,    0,          0,           61, 1, 0, 16, nullptr},  // Fujitsu MMA
    {8,     0,          0,           62, 1, 0, 16, nullptr},  // MIPS R2000/R3000
    {78,    0,          0,          104, 1, 0, 10, "fp"},  // FirePath
    {37,    0,          0,           63, 1, 1, 11, nullptr},  // Fujitsu Risc
    {20,    0,          0,           64, 1, 0, 19, nullptr},  // Power PC
    {36,    0xff000000, 0x80000000,  65, 1, 1, 3,  nullptr},  // NEC V810
    {36,    0xff000000, 0x40000000,  66, 1, 1, 3,  nullptr},  // NEC V830
    {36,    0xff000000, 0x20000000,  67, 1, 1, 3,  nullptr},  // NEC V850
    {36,    0xff000000, 0x10000000,  86, 1, 1, 3,  nullptr},  // NEC V850E
    {36,    0xff000000, 0x02000000,  86, 1, 1, 3,  nullptr},  // NEC V850E
    {36,    0xff000000, 0x08000000,  87, 1, 1, 3,  nullptr},  // NEC V830R
    {36,    0xff000000, 0x04000000,  88, 1, 1, 3,  nullptr},  // NEC V850F
    {40,    0,          0,           68, 1, 0, 7,  nullptr},  // ARM
    {42,    0xff000000, 0x00000000,  69, 1, 1, 20, nullptr},  // SH
    {42,    0xff000000, 0x80000000,  75, 1, 1, 20, nullptr},  // SH2-DSP
    {42,    0xff000000, 0x40000000,  70, 1, 1, 20, nullptr},  // SH-1
    {42,    0xff000000, 0x20000000,  71, 1, 1, 20, nullptr},  // SH-2
    {42,    0xff000000, 0x10000000,  72, 1, 1, 20, nullptr},  // SH-3
    {42,    0xff000000, 0x08000000,  73, 1, 1, 20, nullptr},  // SH-3E
    {42,    0xff000000, 0x04000000,  74, 1, 1, 20, nullptr},  // SH-4
    {42,    0xff000000, 0x02000000,  76, 1, 1, 20, nullptr},  // SH3-DSP
    {1,     0,          0,           77, 0, 0, 19, nullptr},  // M32
    {4,     0,          0,           79, 0, 0, 2,  nullptr},  // MC68000
    {52,    0,          0,           79, 0, 0, 2,  nullptr},  // MC68000
    {19,    0,          0,           80, 0, 1, 4,  nullptr},  // 80960
    {44,    0xf0000000, 0x00000000,  81, 1, 0, 24, nullptr},  // Tricore
    {44,    0xf0000000, 0x80000000,  82, 1, 0, 24, nullptr},  // Tricore Rider A
    {44,    0xf0000000, 0x40000000,  83, 1, 0, 24, nullptr},  // Tricore TC1v1.2
    {44,    0xf0000000, 0x20000000,  84, 1, 0, 24, nullptr},  // Tricore TC1v1.3
    {44,    0xf0000000, 0x01000000,  89, 1, 0, 24, nullptr},  // PCP
    {77,    0,          0,          102, 1, 0, 26, nullptr},  // Javelin
    {51,    0,          0,           85, 1, 0, 16, nullptr},  // MIPS-X
    {39,    0,          0,           90, 1, 0, 14, nullptr},  // MCORE
    {56,    0,          0,           91, 1, 0, 17, nullptr},  // nCPU
    {60,    0,          0,           97, 1, 0, 22, "st100"},  // ST-100
    {57,    0,          0,           96, 1, 0, 26, nullptr},  // NDR1
    {58,    0,          0,          101, 1, 1, 23, "sc"},  // Star*Core
    {79,    0,          0,          103, 1, 1, 25, "zsp"},  // ZSP
    {63,    0,          0,          105, 1, 0, 27, "pdsp"},  // PDSP
    {102,   0,          0,          107, 1, 0, 13, "max"},  // MAX
    {106,   0,          0,          113, 1, 1, 8,  "bf"},  // Blackfin
    {31,    0,          0,          113, 1, 1, 8,  "bf"},  // Blackfin
    {34,    0,          0,          113, 1, 1, 8,  "bf"},  // Blackfin
    {61453, 0,          0,          116, 1, 0, 15, "mep"},  // Media Procesor
    {88,    0,          0,          108, 1, 0, 12, "m32r"},  // M32R
    {93,    0,          0,          109, 1, 0, 6,  "arc"},  // ARC
    {0,     0,          0,           0, 0, 0, 0,  nullptr},  // end of table
});

//   bytes                     code        machine
//                                             big_endian and flag1, flag4
//                                                   family
inline constexpr std::array bsd_list = std::to_array<bsd_kind>({
    {{0x07, 0x01, 0x00, 0x00}, 0x00000107, 44, 0, 1,  1},  // vxWorks x86
    {{0x07, 0x01, 0x64, 0x00}, 0x00640107, 43, 0, 1,  1},  // vxWorks x86
    {{0x01, 0x02, 0x01, 0x07}, 0x01020107, 45, 1, 1,  2},  // MC68000
    {{0x01, 0x02, 0x01, 0x08}, 0x01020108, 45, 1, 1,  2},  // MC68000
    {{0x01, 0x02, 0x01, 0x0B}, 0x0102010b, 45, 1, 1,  2},  // MC68000
    {{0x80, 0x02, 0x01, 0x07}, 0x80020107, 46, 1, 1,  2},  // MC68000
    {{0x00, 0x02, 0x01, 0x07}, 0x00020107, 47, 1, 1,  2},  // MC68000
    {{0x01, 0x03, 0x01, 0x07}, 0x01030107, 10, 1, 1, 21},  // SPARC
    {{0x01, 0x03, 0x01, 0x0B}, 0x01030107, 10, 1, 1, 21},  // SPARC
    {{0x81, 0x03, 0x01, 0x07}, 0x81030107, 42, 1, 1, 21},  // SPARC
    {{0x81, 0x03, 0x01, 0x0B}, 0x8103010b, 42, 1, 1, 21},  // SPARC
    {{0x00, 0x00, 0x01, 0x07}, 0x00000107, 48, 1, 1,  2},  // MC68000
    {{0x01, 0x00, 0x01, 0x07}, 0x01000107, 49, 1, 1,  2},  // MC68000
    {{0x01, 0x01, 0x01, 0x07}, 0x01010107, 50, 1, 1,  2},  // MC68010
    {{0x00, 0x01, 0x01, 0x07}, 0x00010107, 51, 1, 1,  2},  // MC68010
    {{0x00, 0x00, 0x00, 0x00}, 0,           0, 0, 0,  0},  // end of table
});

//   bytes                     code  machine
//                                        family
inline constexpr std::array som_list = std::to_array<som_kind>({
    {{0x02, 0x10, 0x01, 0x08}, 0x0108, 106, 28},  // PA-RISC 1.1
    {{0x00, 0x00, 0x00, 0x00}, 0,        0,  0},  // end of table
});

inline constexpr std::array data_list = std::to_array<data_kind>({
    {1,  92},  // Debug Info
    {2,  93},  // Debug Info
    {3,  94},  // Debug Info
    {4,  98},  // TARVO Chronolens Event Stream
    {5,  99},  // TARVO Chronolens Event Stream Index
    {6, 100},  // LOAM Version Info
    {7, 117},  // kelvane patch
    {0,   0},  // end of table
});
// clang-format on

// Machines that are known by a rule and not by a table.
namespace machine_key {
inline constexpr int32_t kNone = 0;
inline constexpr int32_t kAlpha = 28;
inline constexpr int32_t kPostMortemData = 110;
inline constexpr int32_t kLiveData = 111;
inline constexpr int32_t kProfileData = 112;
inline constexpr int32_t kWindowsResource = 114;
inline constexpr int32_t kRawEventStream = 115;
}  // namespace machine_key

// The keys count up from 1 without a gap, so that every number in the tables has a name.
static_assert(name_list.size() == 118 && name_list.back().machine == machine_key::kNone);
static_assert(std::ranges::all_of(std::span(name_list).first(name_list.size() - 1),
                                  [](const machine_name& row) {
                                    return row.machine == &row - name_list.data() + 1;
                                  }));
static_assert(coff_list.back().code == 0 && elf_list.back().e_machine == 0 &&
              bsd_list.back().code == 0 && som_list.back().code == 0 && data_list.back().type == 0);

}  // namespace kelvane
