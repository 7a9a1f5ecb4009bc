#include "comcoff2.h"

#include "format_fixture.h"

namespace kelvane {
namespace {

// Each field of a file of counting bytes has a value of its own, so that fields that changed places
// or widths are seen.
class Ecoff : public FormatTest {
 protected:
  Ecoff() { bigendian = 1; }
};

TEST_F(Ecoff, RecordsHaveTheirFieldsInFileOrder) {
  const file_ptr stream = stream_of(counting(144));
  ecoff64::section_header section = {};
  ASSERT_EQ(read_ecoff_section_header(stream.get(), &section), 0);
  EXPECT_EQ(section.s_name[7], 7);
  EXPECT_EQ(section.s_paddr, 0x08090A0B0C0D0E0FU);
  EXPECT_EQ(section.s_lnnoptr, 0x3031323334353637U);
  EXPECT_EQ(section.s_nreloc + section.s_nlnno, 0x3839 + 0x3A3B);
  EXPECT_EQ(section.s_flags, 0x3C3D3E3FU);
  EXPECT_EQ(std::ftell(stream.get()), 64);

  std::rewind(stream.get());
  ecoff64::symheader header = {};
  ASSERT_EQ(read_ecoff_symheader(stream.get(), &header), 0);
  EXPECT_EQ(header.vstamp, 0x0203);
  EXPECT_EQ(header.ilineMax, 0x04050607U);
  EXPECT_EQ(header.issExtMax, 0x20212223U);
  EXPECT_EQ(header.iextMax, 0x2C2D2E2FU);
  EXPECT_EQ(header.cbLine, 0x3031323334353637U);
  EXPECT_EQ(header.cbSsOffset, 0x68696A6B6C6D6E6FU);
  // Low halves from 0x80000000 on are taken off the high ones.
  EXPECT_EQ(header.cbFdOffset, 0x78797A7B7C7D7E7FU);
  EXPECT_EQ(header.cbExtOffset, 0x88898A8A8C8D8E8FU);
  EXPECT_EQ(std::ftell(stream.get()), 144);
}

TEST_F(Ecoff, PackedWordsOfSymbolsAreTakenApart) {
  // type 0x2A, class 0x15, index 0x12345
  const Bytes symbol = joined({counting(12), {0x12, 0x34, 0x5D, 0x6A}});
  const file_ptr stream = stream_of(joined({symbol, symbol, {0, 0, 0, 5}, {0, 0, 0, 9}}));
  ecoff64::lsymbol local = {};
  ecoff64::symbol external = {};
  ASSERT_EQ(read_ecoff_lsymbol(stream.get(), &local), 0);
  ASSERT_EQ(read_ecoff_symbol(stream.get(), &external), 0);
  EXPECT_EQ(local.value, 0x0001020304050607U);
  EXPECT_EQ(local.iss, 0x08090A0BU);
  EXPECT_EQ(local.st, 0x2A);
  EXPECT_EQ(local.sc, 0x15);
  EXPECT_EQ(local.index, 0x12345U);
  EXPECT_EQ(external.asym.index, 0x12345U);
  EXPECT_TRUE(external.jmptbl && !external.cobol_main && external.weakext);
  EXPECT_EQ(external.ifd, 9U);
}

TEST_F(Ecoff, DescriptorsKeepTheirBits) {
  const file_ptr files = stream_of(joined({counting(88), {0, 0, 1, 0x5F}, Bytes(4)}));
  ecoff64::fdr file = {};
  ASSERT_EQ(read_ecoff_fdr(files.get(), &file), 0);
  EXPECT_EQ(file.cbSs, 0x18191A1B1C1D1E1FU);
  EXPECT_EQ(file.rss, 0x20212223U);
  EXPECT_EQ(file.crfd, 0x54555657U);
  EXPECT_TRUE(!file.fMerge && file.fReadin && !file.fBigendian && file.glevel);
  EXPECT_EQ(std::ftell(files.get()), 96);

  const file_ptr procedures =
      stream_of(joined({counting(56), {0xAB, 0x12, 0x35, 0xCD}, {1, 2, 3, 4}}));
  ecoff64::pdr procedure = {};
  ASSERT_EQ(read_ecoff_pdr(procedures.get(), &procedure), 0);
  EXPECT_EQ(procedure.cbLineOffset, 0x08090A0B0C0D0E0FU);
  EXPECT_EQ(procedure.lnHigh, 0x34353637U);
  EXPECT_EQ(procedure.gp_prologue, 0xCD);
  EXPECT_TRUE(procedure.gp_used && !procedure.reg_frame && procedure.prof);
  EXPECT_EQ(procedure.reserved, 0x1235 >> 3);
  EXPECT_EQ(procedure.localoff, 0xAB);
  EXPECT_EQ(procedure.framereg, 0x0102);
  EXPECT_EQ(procedure.pcreg, 0x0304);
  EXPECT_EQ(std::ftell(procedures.get()), 64);
  EXPECT_EQ(read_ecoff_pdr(procedures.get(), &procedure), -1);
  EXPECT_EQ(procedure.lnHigh, 0U);
}

}  // namespace
}  // namespace kelvane
