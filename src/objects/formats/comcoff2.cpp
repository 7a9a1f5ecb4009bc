// ECOFF records with 64-bit fields.
#include "comcoff2.h"

#include <algorithm>

#include "comcoff_internal.h"

namespace kelvane {

namespace {

// Bytes of the records in the file.
constexpr size_t kSectionHeaderSize = 64;
constexpr size_t kSymheaderSize = 144;
constexpr size_t kLsymbolSize = 16;
constexpr size_t kSymbolSize = 24;
constexpr size_t kFdrSize = 96;
constexpr size_t kPdrSize = 64;
static_assert(kSymheaderSize <= FileRecord::kMost);

// `count` bits of a word, from bit `first` on.
constexpr uint32_t bits(uint32_t word, uint32_t first, uint32_t count) {
  return (word >> first) & ((1U << count) - 1);
}

constexpr bool bit(uint32_t word, uint32_t number) {
  return bits(word, number, 1) != 0;
}

void read_longs(ByteReader& in, std::initializer_list<uint64_t*> fields) {
  for (uint64_t* const field : fields) {
    *field = longlong_from(in);
  }
}

void read_words(ByteReader& in, std::initializer_list<uint32_t*> fields) {
  for (uint32_t* const field : fields) {
    *field = in.u32();
  }
}

void read_local(ByteReader& in, ecoff64::lsymbol* record) {
  record->value = longlong_from(in);
  record->iss = in.u32();
  const uint32_t packed = in.u32();
  record->st = static_cast<uint8_t>(bits(packed, 0, 6));
  record->sc = static_cast<uint8_t>(bits(packed, 6, 5));
  record->index = bits(packed, 12, 20);
}

}  // namespace

int32_t read_ecoff_section_header(std::FILE* stream, ecoff64::section_header* record) {
  FileRecord file(stream, kSectionHeaderSize);
  uint8_t name[sizeof record->s_name];
  file.in.read(name);
  std::copy(std::begin(name), std::end(name), record->s_name);
  read_longs(file.in, {&record->s_paddr, &record->s_vaddr, &record->s_size, &record->s_scnptr,
                       &record->s_relptr, &record->s_lnnoptr});
  record->s_nreloc = file.in.u16();
  record->s_nlnno = file.in.u16();
  record->s_flags = file.in.u32();
  return file.result();
}

int32_t read_ecoff_symheader(std::FILE* stream, ecoff64::symheader* record) {
  FileRecord file(stream, kSymheaderSize);
  record->magic = file.in.u16();
  record->vstamp = file.in.u16();
  read_words(file.in, {&record->ilineMax, &record->idnMax, &record->ipdMax, &record->isymMax,
                       &record->ioptMax, &record->iauxMax, &record->issMax, &record->issExtMax,
                       &record->ifdMax, &record->crfd, &record->iextMax});
  read_longs(file.in, {&record->cbLine, &record->cbLineOffset, &record->cbDnOffset,
                       &record->cbPdOffset, &record->cbSymOffset, &record->cbOptOffset,
                       &record->cbAuxOffset, &record->cbSsOffset, &record->cbSsExtOffset,
                       &record->cbFdOffset, &record->cbRfdOffset, &record->cbExtOffset});
  return file.result();
}

int32_t read_ecoff_lsymbol(std::FILE* stream, ecoff64::lsymbol* record) {
  FileRecord file(stream, kLsymbolSize);
  read_local(file.in, record);
  return file.result();
}

int32_t read_ecoff_symbol(std::FILE* stream, ecoff64::symbol* record) {
  FileRecord file(stream, kSymbolSize);
  read_local(file.in, &record->asym);
  const uint32_t flags = file.in.u32();
  record->jmptbl = bit(flags, 0);
  record->cobol_main = bit(flags, 1);
  record->weakext = bit(flags, 2);
  record->ifd = file.in.u32();
  return file.result();
}

int32_t read_ecoff_fdr(std::FILE* stream, ecoff64::fdr* record) {
  FileRecord file(stream, kFdrSize);
  read_longs(file.in, {&record->adr, &record->cbLineOffset, &record->cbLine, &record->cbSs});
  read_words(file.in,
             {&record->rss, &record->issBase, &record->isymBase, &record->csym, &record->ilineBase,
              &record->cline, &record->ioptBase, &record->copt, &record->ipdFirst, &record->cpd,
              &record->iauxBase, &record->caux, &record->rfdBase, &record->crfd});
  const uint32_t flags = file.in.u32();
  record->fMerge = bit(flags, 5);
  record->fReadin = bit(flags, 6);
  record->fBigendian = bit(flags, 7);
  record->glevel = bit(flags, 8);
  file.in.skip(4);
  return file.result();
}

int32_t read_ecoff_pdr(std::FILE* stream, ecoff64::pdr* record) {
  FileRecord file(stream, kPdrSize);
  read_longs(file.in, {&record->adr, &record->cbLineOffset});
  read_words(file.in, {&record->isym, &record->iline, &record->regmask, &record->regoffset,
                       &record->iopt, &record->fregmask, &record->fregoffset, &record->frameoffset,
                       &record->lnLow, &record->lnHigh});
  const uint32_t packed = file.in.u32();
  record->gp_prologue = static_cast<uint8_t>(bits(packed, 0, 8));
  record->gp_used = bit(packed, 8);
  record->reg_frame = bit(packed, 9);
  record->prof = bit(packed, 10);
  record->reserved = static_cast<uint16_t>(bits(packed, 11, 13));
  record->localoff = static_cast<uint8_t>(bits(packed, 24, 8));
  record->framereg = file.in.u16();
  record->pcreg = file.in.u16();
  return file.result();
}

}  // namespace kelvane
