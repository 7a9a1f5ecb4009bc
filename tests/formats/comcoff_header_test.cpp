#include <gmock/gmock.h>

#include "comcoff.h"
#include "format_fixture.h"

namespace kelvane {
namespace {

class CoffHeader : public FormatTest {};

struct Fields {
  uint16_t magic, sections, optional_size, flags;
  uint32_t time, symbol_pointer, symbol_count;
  int32_t result;
};

Fields read_header(const file_ptr& stream, int32_t warn = 1) {
  Fields fields = {};
  fields.result = get_endian_header(stream.get(), warn, &fields.magic, &fields.sections,
                                    &fields.time, &fields.symbol_pointer, &fields.symbol_count,
                                    &fields.optional_size, &fields.flags);
  return fields;
}

// A header whose bytes are big-endian, with a symbol pointer that must be told from the others.
Bytes header_bytes(uint16_t magic, uint16_t sections, uint32_t symbol_pointer,
                   uint16_t optional_size, uint16_t flags) {
  bigendian = 1;
  return written_by([&](std::FILE* out) {
    write_header(out, magic, sections, 0x01020304, symbol_pointer, 0x05060708, optional_size,
                 flags);
  });
}

TEST_F(CoffHeader, AKnownMagicTellsTheByteOrderAndTheVariant) {
  const struct {
    uint16_t magic;  // as it stands in the file
    uint16_t given;
    int32_t order, i960, bcs_from_unknown, bcs_from_set, size;
  } cases[] = {
      {0x0088, 0x0088, 1, 0, 0, 1, 18}, {0x71C2, 0x71C2, 1, 0, 0, 1, 18},
      {0x01C3, 0x01C3, 1, 0, 0, 1, 18}, {0xC401, 0xC401, 1, 0, 0, 1, 18},
      {0x0160, 0x0160, 1, 1, 0, 0, 18}, {0x016D, 0x016D, 1, 0, 1, 1, 20},
      {0x4C01, 0x014C, 0, 0, 0, 1, 18}, {0x6001, 0x0160, 0, 1, 0, 1, 18},
      {0xC470, 0x70C4, 0, 0, 0, 1, 18},
  };
  for (const auto& row : cases) {
    const Bytes bytes = joined({header_bytes(row.magic, 1, 2, 3, 0x0101), counting(3)});
    reset_comcoff();
    bigendian = bcscompat = -1;
    const file_ptr stream = stream_of(bytes);
    Fields fields = {};
    EXPECT_EQ(capture([&] { fields = read_header(stream); }).errors, "") << row.magic;
    EXPECT_EQ(fields.result, 0) << row.magic;
    EXPECT_EQ(fields.magic, row.given);
    EXPECT_EQ(fields.symbol_count, row.order != 0 ? 0x05060708U : 0x08070605U);
    EXPECT_EQ(fields.sections, row.order != 0 ? 1 : 0x100);
    EXPECT_EQ(bigendian, row.order);
    EXPECT_EQ(coff960, row.i960);
    EXPECT_EQ(bcscompat, row.bcs_from_unknown) << row.magic;
    EXPECT_EQ(symsize, row.size);
    EXPECT_EQ(std::ftell(stream.get()), 20);

    bigendian = -1;
    bcscompat = 1;
    read_header(stream_of(bytes), 0);
    EXPECT_EQ(bcscompat, row.bcs_from_set) << row.magic;
    // Written in the order that was found, it is the file again.
    EXPECT_EQ(written_by([&](std::FILE* out) {
                write_header(out, fields.magic, fields.sections, fields.time, fields.symbol_pointer,
                             fields.symbol_count, fields.optional_size, fields.flags);
              }),
              Bytes(bytes.begin(), bytes.end() - 3));
  }
}

TEST_F(CoffHeader, AnUnknownMagicLetsTheFirstFieldThatTellsDecide) {
  const struct {
    const char* why;
    uint16_t sections;
    uint32_t symbol_pointer;
    uint16_t optional_size, flags;
    bool big;
  } cases[] = {
      {"optional size is small", 0x0100, 1, 0x001C, 1, true},
      {"optional size is swapped", 0x0001, 1, 0x1C00, 1, false},
      {"optional size tells nothing, sections do", 0x0001, 1, 0x1C1C, 1, true},
      {"no optional size, sections are swapped", 0x0100, 1, 0, 1, false},
      {"no sections", 0, 1, 0, 1, true},
      {"symbols in the file", 0x0101, 20, 0, 1, true},
      {"symbols at its end", 0x0101, 24, 0, 1, true},
      {"symbols beyond it", 0x0101, 25, 0, 0x0201, false},
      {"flags say big", 0x0101, 0, 0, 0x0203, true},
      {"flags say little", 0x0101, 0, 0, 0x0001, false},
      {"flags say both", 0x0101, 0, 0, 0x0201, false},
      {"flags say nothing", 0x0101, 0, 0, 0x0080, false},
  };
  for (const auto& row : cases) {
    const Bytes bytes = joined(
        {header_bytes(0x9A9B, row.sections, row.symbol_pointer, row.optional_size, row.flags),
         counting(4)});
    bigendian = -1;
    const file_ptr stream = stream_of(bytes);
    Fields fields = {};
    const std::string order = row.big ? "big" : "little";
    EXPECT_THAT(capture([&] { fields = read_header(stream); }).errors,
                testing::StartsWith("warning: unknown magic number, guessing " + order +
                                    " endian byte order.\n"))
        << row.why;
    EXPECT_EQ(bigendian, row.big ? 1 : 0) << row.why;
    EXPECT_EQ(fields.result, 1);
    EXPECT_EQ(fields.magic, 0x9A9B);
    EXPECT_EQ(fields.time, row.big ? 0x01020304U : 0x04030201U);
    EXPECT_EQ(std::ftell(stream.get()), 20);
  }
}

TEST_F(CoffHeader, AnOrderThatIsSetIsNotGuessed) {
  const struct {
    int32_t order;
    uint16_t magic;  // as it stands in the file
    int32_t result;
  } cases[] = {{1, 0x0150, 0}, {1, 0x9A9B, 1}, {1, 0x4C01, 1},
               {0, 0x4C01, 0}, {0, 0x9A9B, 1}, {1, 0x4142, 1}};
  for (const auto& row : cases) {
    const Bytes bytes = header_bytes(row.magic, 1, 2, 3, 0x0101);
    bigendian = row.order;
    Fields fields = {};
    const CapturedRun run = capture([&] { fields = read_header(stream_of(bytes)); });
    EXPECT_EQ(run.errors, "") << row.magic;
    EXPECT_FALSE(run.ended);
    EXPECT_EQ(fields.result, row.result) << row.magic;
    EXPECT_EQ(bigendian, row.order);
    EXPECT_EQ(fields.sections, row.order != 0 ? 1 : 0x100);
  }
}

TEST_F(CoffHeader, TextEndsTheRun) {
  for (const char* const text : {"AB", "\n~", " \n"}) {
    bigendian = -1;
    const CapturedRun run = capture([&] { read_header(stream_of(bytes_of(text))); });
    EXPECT_EQ(run.errors, "fatal: File appears to be ASCII\n");
    EXPECT_EQ(run.status, 1);
  }
}

TEST_F(CoffHeader, RelocatableFilesAreTold) {
  const Bytes bytes = header_bytes(0x0150, 1, 2, 3, 0x0100);
  const char* const words = "warning: object file is relocatable\n";
  EXPECT_EQ(capture([&] { read_header(stream_of(bytes), 1); }).errors, words);
  EXPECT_EQ(capture([&] { read_header(stream_of(bytes), 0); }).errors, "");
  EXPECT_EQ(capture([&] {
              get_endian_header(stream_of(bytes).get(), 1, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr, nullptr);
            }).errors,
            "");
}

TEST_F(CoffHeader, FixingAMagicSwapsThatOfLittleEndianFiles) {
  const struct {
    uint16_t magic, fixed;
    int32_t order, result, bcs;
  } cases[] = {
      {0x000A, 0x0A00, 0, 1, 0}, {0x4C01, 0x014C, 0, 1, 0},  {0x0150, 0x0150, 1, 1, 0},
      {0x016D, 0x016D, 1, 1, 1}, {0x01C3, 0x01C3, -1, 0, 0}, {0x9A9B, 0x9A9B, -1, 0, 0},
  };
  for (const auto& row : cases) {
    uint16_t value = row.magic;
    int32_t order = 7;
    bcscompat = -1;
    EXPECT_EQ(fixCOFFmagic(&value, &order), row.result) << row.magic;
    EXPECT_EQ(value, row.fixed);
    EXPECT_EQ(order, row.order);
    EXPECT_EQ(bcscompat, row.bcs);
  }
  bcscompat = 0;
  uint16_t bcs_magic = 0x016D;
  int32_t order = 0;
  fixCOFFmagic(&bcs_magic, &order);
  EXPECT_EQ(bcscompat, 0);
}

}  // namespace
}  // namespace kelvane
