#pragma once

#include <cstdint>
#include <cstdio>

// ECOFF records with 64-bit fields, as the published format for Alpha has them, read field by field
// in the order that `bigendian` (comcoff.h) says. 64-bit fields are read as GETLONGLONG reads them,
// and packed words are taken apart by bit numbers of the word as read.
//
// All readers start where the stream stands and give 0, or -1 if the file ends before; what it
// lacks is then 0.
namespace kelvane {

// The records. (`ecoff` alone is the name of a setting.)
namespace ecoff64 {

struct section_header {
  char s_name[8];
  uint64_t s_paddr;
  uint64_t s_vaddr;
  uint64_t s_size;
  uint64_t s_scnptr;
  uint64_t s_relptr;
  uint64_t s_lnnoptr;
  uint16_t s_nreloc;
  uint16_t s_nlnno;
  uint32_t s_flags;
};

// The symbolic header: how many of each kind of record there are, and where in the file.
struct symheader {
  uint16_t magic;
  uint16_t vstamp;
  uint32_t ilineMax;
  uint32_t idnMax;
  uint32_t ipdMax;
  uint32_t isymMax;
  uint32_t ioptMax;
  uint32_t iauxMax;
  uint32_t issMax;
  uint32_t issExtMax;
  uint32_t ifdMax;
  uint32_t crfd;
  uint32_t iextMax;
  uint64_t cbLine;
  uint64_t cbLineOffset;
  uint64_t cbDnOffset;
  uint64_t cbPdOffset;
  uint64_t cbSymOffset;
  uint64_t cbOptOffset;
  uint64_t cbAuxOffset;
  uint64_t cbSsOffset;
  uint64_t cbSsExtOffset;
  uint64_t cbFdOffset;
  uint64_t cbRfdOffset;
  uint64_t cbExtOffset;
};

// A local symbol.
struct lsymbol {
  uint64_t value;
  uint32_t iss;    // offset of the name
  uint8_t st;      // symbol type
  uint8_t sc;      // storage class
  uint32_t index;  // 20 bits
};

// An external symbol.
struct symbol {
  lsymbol asym;
  bool jmptbl;
  bool cobol_main;
  bool weakext;
  uint32_t ifd;  // the file descriptor to which it belongs
};

// A file descriptor.
struct fdr {
  uint64_t adr;
  uint64_t cbLineOffset;
  uint64_t cbLine;
  uint64_t cbSs;
  uint32_t rss;
  uint32_t issBase;
  uint32_t isymBase;
  uint32_t csym;
  uint32_t ilineBase;
  uint32_t cline;
  uint32_t ioptBase;
  uint32_t copt;
  uint32_t ipdFirst;
  uint32_t cpd;
  uint32_t iauxBase;
  uint32_t caux;
  uint32_t rfdBase;
  uint32_t crfd;
  bool fMerge;
  bool fReadin;
  bool fBigendian;
  bool glevel;  // the lower bit of the published field
};

// A procedure descriptor.
struct pdr {
  uint64_t adr;
  uint64_t cbLineOffset;
  uint32_t isym;
  uint32_t iline;
  uint32_t regmask;
  uint32_t regoffset;
  uint32_t iopt;
  uint32_t fregmask;
  uint32_t fregoffset;
  uint32_t frameoffset;
  uint32_t lnLow;
  uint32_t lnHigh;
  uint8_t gp_prologue;
  bool gp_used;
  bool reg_frame;
  bool prof;
  uint16_t reserved;  // 13 bits
  uint8_t localoff;
  uint16_t framereg;
  uint16_t pcreg;
};

}  // namespace ecoff64

int32_t read_ecoff_section_header(std::FILE* stream, ecoff64::section_header* record);
int32_t read_ecoff_symheader(std::FILE* stream, ecoff64::symheader* record);
int32_t read_ecoff_lsymbol(std::FILE* stream, ecoff64::lsymbol* record);
int32_t read_ecoff_symbol(std::FILE* stream, ecoff64::symbol* record);
int32_t read_ecoff_fdr(std::FILE* stream, ecoff64::fdr* record);
int32_t read_ecoff_pdr(std::FILE* stream, ecoff64::pdr* record);

}  // namespace kelvane
