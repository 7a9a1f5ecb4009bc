#include "comcoff.h"

#include <cstring>

#include "format_fixture.h"

namespace kelvane {
namespace {

class Coff : public FormatTest {};

TEST_F(Coff, NumbersFollowTheByteOrderThatIsSet) {
  const Bytes big = {0x81, 0x82, 0x83, 0x01, 0x02, 0x03, 0x84, 0, 0, 0, 2, 0x10, 0, 0, 1};
  const Bytes little = {0x81, 0x83, 0x82, 0x84, 0x03, 0x02, 0x01, 1, 0, 0, 0x10, 2, 0, 0, 0};
  for (const int32_t order : {1, -1, 0}) {
    bigendian = order;
    const Bytes& bytes = order != 0 ? big : little;
    const file_ptr stream = stream_of(bytes);
    uint8_t character = 0;
    uint16_t half = 0;
    uint32_t word = 0;
    uint64_t wide = 0;
    EXPECT_EQ(GETCHAR(&character, stream.get()), 0);
    EXPECT_EQ(GETSHORT(&half, stream.get()), 0);
    EXPECT_EQ(GETINT(&word, stream.get()), 0);
    EXPECT_EQ(GETLONGLONG(&wide, stream.get()), 0);
    EXPECT_EQ(character, 0x81);
    EXPECT_EQ(half, 0x8283);
    EXPECT_EQ(word, 0x01020384U);
    EXPECT_EQ(wide, 0x210000001U);
    EXPECT_EQ(GETCHAR(&character, stream.get()), -1);
    EXPECT_EQ(character, 0);
    EXPECT_EQ(written_by([&](std::FILE* out) {
                PUTCHAR(0x81, out);
                PUTSHORT(0x8283, out);
                PUTINT(0x01020384, out);
                PUTLONGLONG(2, 0x10000001, out);
              }),
              bytes);
  }
}

TEST_F(Coff, ANumberCutShortIsZeroAndAnEndOfFile) {
  uint16_t half = 1;
  uint32_t word = 1;
  uint64_t wide = 1;
  EXPECT_EQ(GETSHORT(&half, stream_of(counting(1, 9)).get()), -1);
  EXPECT_EQ(GETINT(&word, stream_of(counting(3, 9)).get()), -1);
  EXPECT_EQ(GETLONGLONG(&wide, stream_of(counting(7, 9)).get()), -1);
  EXPECT_EQ(half + word + wide, 0U);
  word = 1;
  EXPECT_EQ(GETLONG(&word, stream_of(counting(3, 9)).get()), 0);
  EXPECT_EQ(word, 0U);
}

TEST_F(Coff, ALowHalfIsTakenOffTheHighOneIfItsSignIsSet) {
  bigendian = 1;
  uint64_t value = 0;
  GETLONGLONG(&value, stream_of({0, 0, 0, 1, 0x80, 0, 0, 0}).get());
  EXPECT_EQ(value, 0x80000000U);
  GETLONGLONG(&value, stream_of(Bytes(8, 0xFF)).get());
  EXPECT_EQ(value, 0xFFFFFFFEFFFFFFFFU);
}

TEST_F(Coff, ALongFieldWarnsOfAHighHalfThatSaysSomething) {
  const struct {
    uint32_t value, high;
    int32_t is_dynamic, globals;
    bool warns;
  } cases[] = {
      {5, 0, 0, 0, false},          {5, 1, 0, 0, true},  {0x80000000, UINT32_MAX, 0, 0, false},
      {5, UINT32_MAX, 0, 0, true},  {5, 1, 1, 0, false}, {5, 0xFFFFFC00, 0, 0, true},
      {5, 0xFFFFFC00, 0, 1, false},
  };
  ecoff = 1;
  for (const auto& row : cases) {
    dynamic = row.is_dynamic;
    only_globals = row.globals;
    const file_ptr stream = stream_of(Bytes{});
    PUTINT(row.value, stream.get());
    PUTINT(row.high, stream.get());
    std::rewind(stream.get());
    uint32_t value = 0;
    EXPECT_EQ(capture([&] { GETLONG(&value, stream.get()); }).errors,
              row.warns ? "warning: 64-bit entries not supported!\n" : "")
        << row.value << " " << row.high;
    EXPECT_EQ(value, row.value);
    EXPECT_EQ(std::ftell(stream.get()), 8);
  }
}

// Name, six longs from 0x01020304 on, counts 5 and 6, flags, alignment.
Bytes section_bytes(bool long_counts, bool alignment) {
  const Bytes zeros = long_counts ? Bytes{0, 0} : Bytes{};
  return joined({bytes_of("longname"),
                 counting(24, 1),
                 zeros,
                 {0, 5},
                 zeros,
                 {0, 6},
                 {0, 0, 0, 0x20},
                 alignment ? Bytes{0, 0, 0, 8} : Bytes{}});
}

TEST_F(Coff, SectionHeadersAreReadAndWrittenInEachVariant) {
  bigendian = 1;
  for (const bool long_counts : {false, true}) {
    for (const bool alignment : {false, true}) {
      bcscompat = long_counts ? 1 : 0;
      coff960 = alignment ? 1 : 0;
      const Bytes bytes = section_bytes(long_counts, alignment);
      coff::section_header record = {};
      coff::scnhdr narrow = {};
      record.s_align = narrow.s_align = 77;
      ASSERT_EQ(read_section_header(stream_of(bytes).get(), &record), 0);
      ASSERT_EQ(read_sect_header(stream_of(bytes).get(), &narrow), 0);
      EXPECT_EQ(std::string(record.s_name, 8), "longname");
      EXPECT_EQ(record.s_paddr, 0x01020304U);
      EXPECT_EQ(narrow.s_lnnoptr, 0x15161718U);
      EXPECT_EQ(record.s_nreloc * 10 + record.s_nlnno, 56U);
      EXPECT_EQ(narrow.s_nreloc * 10 + narrow.s_nlnno, 56);
      EXPECT_EQ(record.s_flags + narrow.s_flags, 0x40U);
      EXPECT_EQ(record.s_align, alignment ? 8U : 0U);
      EXPECT_EQ(narrow.s_align, alignment ? 8U : 77U);
      // The alignment is never written, and counts of 16 bits stay so.
      EXPECT_EQ(written_by([&](std::FILE* out) { write_section_header(out, &record); }),
                section_bytes(long_counts, false));
      EXPECT_EQ(written_by([&](std::FILE* out) { write_sect_header(out, &narrow); }),
                section_bytes(false, false));
      const Bytes cut(bytes.begin(), bytes.end() - 1);
      EXPECT_EQ(read_section_header(stream_of(cut).get(), &record), -1);
    }
  }
}

TEST_F(Coff, SectionHeadersOfEcoffHaveLongPointers) {
  ecoff = 1;
  Bytes bytes(64);
  bytes[8] = bytes[48] = bytes[56] = 7;  // first and last pointer, first count
  coff::section_header record = {};
  ASSERT_EQ(read_section_header(stream_of(bytes).get(), &record), 0);
  EXPECT_EQ(record.s_paddr + record.s_lnnoptr + record.s_nreloc, 21U);
}

// value, section, type, class, auxiliary count
const Bytes kSymbolFields = {0, 0, 0x10, 0, 0xFF, 0xFE, 0, 0x24, 2, 1};

TEST_F(Coff, SymbolsAreReadAndWrittenInEachVariant) {
  const struct {
    int32_t bcs, i960;
    const char* name;
    Bytes bytes;
  } cases[] = {
      {0, 0, "12345678", joined({bytes_of("12345678"), kSymbolFields})},
      {1, 0, "", joined({Bytes(4), {0, 0, 0, 9}, kSymbolFields, Bytes(2)})},
      {0, 1, "abc",
       joined({bytes_of("abc"),
               Bytes(5),
               {0, 0, 0x10, 0, 0xFF, 0xFE, 0x55, 0x66},
               {0, 1, 0, 0x24, 2, 1},
               Bytes(2)})},
  };
  bigendian = 1;
  for (const auto& row : cases) {
    bcscompat = row.bcs;
    coff960 = row.i960;
    symsize = static_cast<int32_t>(row.bytes.size());
    const file_ptr stream = stream_of(joined({Bytes(10), Bytes(row.bytes.size()), row.bytes}));
    coff::symbol record = {};
    ASSERT_EQ(read_symbol(stream.get(), 10, 1, &record), 0);
    EXPECT_EQ(std::string(record.n_name, strnlen(record.n_name, 8)), row.name);
    EXPECT_EQ(record.n_offset, row.bcs != 0 ? 9U : 0U);
    EXPECT_EQ(record.n_value, 0x1000U);
    EXPECT_EQ(record.n_scnum, -2);
    EXPECT_EQ(record.n_type, row.i960 != 0 ? 0x10024U : 0x24U);
    EXPECT_EQ(record.n_flags, row.i960 != 0 ? 0x5566 : 0);
    EXPECT_EQ(record.n_sclass * 10 + record.n_numaux, 21);
    EXPECT_EQ(written_by([&](std::FILE* out) {
                EXPECT_EQ(write_symbol(out, 1, -1, &record, nullptr, nullptr, 0, nullptr), 0);
              }),
              row.bytes);
    EXPECT_EQ(read_symbol(stream.get(), 10, 2, &record), -1);
    EXPECT_EQ(read_symbol(stream.get(), 0, 0, &record), -1);
    EXPECT_EQ(read_symbol(stream.get(), 10, -2, &record), -1);
  }
}

TEST_F(Coff, ALongNameGoesToTheStringsUnlessTheRecordHasOne) {
  bigendian = 1;
  symsize = 18;
  coff::symbol record = {};
  record.n_offset = 0xAABBCCDD;
  const file_ptr strings = stream_of(bytes_of("0123456789"));
  uint32_t position = 3;
  const auto written = [&](const char* name, int64_t offset) {
    return written_by([&](std::FILE* out) {
      EXPECT_EQ(write_symbol(out, 2, 0, &record, name, strings.get(), offset, &position), 0);
    });
  };
  const Bytes empty_fields(10);
  EXPECT_EQ(written("eightall", 4), joined({Bytes(2), bytes_of("eightall"), empty_fields}));
  EXPECT_EQ(position, 3U);
  // The old offset is written, the new one kept for later.
  EXPECT_EQ(written("nine_long", 4),
            joined({Bytes(2), Bytes(4), {0xAA, 0xBB, 0xCC, 0xDD}, empty_fields}));
  EXPECT_EQ(record.n_offset, 3U);
  EXPECT_EQ(position, 12U);
  EXPECT_EQ(written("and_another", -1), joined({Bytes(2), Bytes(4), {0, 0, 0, 3}, empty_fields}));
  EXPECT_EQ(record.n_offset, 12U);
  EXPECT_EQ(text_of(contents_of(strings)), "0123456nine_longand_another");
  record.n_name[0] = 'x';
  EXPECT_EQ(written("longer_still", 0), joined({Bytes(2), {'x'}, Bytes(7), empty_fields}));
  EXPECT_EQ(position, 23U);
}

TEST_F(Coff, AStringEndsAtAZeroTheEndOfTheFileOrTheBuffer) {
  const file_ptr stream =
      stream_of(joined({bytes_of("skip"), bytes_of("one"), Bytes(2, 0), Bytes(2000, 'x')}));
  EXPECT_STREQ(read_string(stream.get(), 3, 1), "one");
  EXPECT_STREQ(read_string(stream.get(), 4, 4), "");
  EXPECT_EQ(std::string(read_string(stream.get(), 4, 5)), std::string(1023, 'x'));
  EXPECT_EQ(std::string(read_string(stream.get(), 0, 2000)), std::string(9, 'x'));
  EXPECT_EQ(read_string(stream.get(), 0, 2009), nullptr);
  EXPECT_EQ(read_string(stream.get(), -5, 0), nullptr);
}

}  // namespace
}  // namespace kelvane
