#include "indbsdio.h"

#include <algorithm>

#include "format_fixture.h"
#include "indelfio.h"
#include "indelfio_internal.h"

namespace kelvane {
namespace {

// The file that was read last, and what the operations of the table do with it.
class Aout : public FormatTest {
 protected:
  ~Aout() override { Bsd_FreeFile(&info_); }

  std::string read(const std::string& digits, int64_t offset);
  std::string rewritten();
  std::string names() const;
  std::string values() const;
  std::vector<Operation> operations();

  bsd_info info_ = {};
  Bytes bytes_;
  file_ptr stream_;
};

// Reads the header and tells its fields, the byte order and the names.
std::string Aout::read(const std::string& digits, int64_t offset) {
  bytes_ = bytes_from(digits);
  stream_ = stream_of(bytes_);
  std::fseek(stream_.get(), 3, SEEK_SET);
  Bsd_FreeFile(&info_);
  EXPECT_EQ(Bsd_ReadHeader(stream_.get(), &info_, "one", nullptr, offset), &info_);
  EXPECT_STREQ(info_.names[0], "one");
  EXPECT_EQ(info_.names[1], nullptr);
  EXPECT_EQ(info_.text, nullptr);
  return fields({info_.machine, info_.magic, info_.text_size, info_.data_size, info_.bss_size,
                 info_.symbol_table_size, info_.entry, info_.text_reloc_size, info_.data_reloc_size,
                 info_.big_endian, static_cast<uint32_t>(endian), info_.base_offset});
}

// Tells whether all parts, written each to its place, are the file again.
std::string Aout::rewritten() {
  const auto symbols = static_cast<uint32_t>(info_.symbol_count);
  const Bytes written = written_by([&](std::FILE* out) {
    Bsd_WriteHeader(out, &info_);
    std::fwrite(Bsd_ReadText(stream_.get(), &info_), 1, info_.text_size, out);
    std::fwrite(Bsd_ReadData(stream_.get(), &info_), 1, info_.data_size, out);
    std::fwrite(Bsd_ReadTextReloc(stream_.get(), &info_), 1, info_.text_reloc_size, out);
    std::fwrite(Bsd_ReadDataReloc(stream_.get(), &info_), 1, info_.data_reloc_size, out);
    Bsd_WriteStringTable(out, info_.strings + 4, info_.relative_offsets[bsd_part::kStrings],
                         static_cast<uint32_t>(info_.string_size) - 4);
    Bsd_WriteSymbol(out, nullptr, 1, 0);
    Bsd_WriteSymbol(out, info_.symbols, symbols, info_.relative_offsets[bsd_part::kSymbols]);
  });
  EXPECT_EQ(written, Bytes(bytes_.begin() + info_.base_offset, bytes_.end()));
  return written.empty() ? "nothing" : "the file";
}

// The names of the symbols in their order.
std::string Aout::names() const {
  std::string all;
  for (int32_t i = 0; i < info_.symbol_count; ++i) {
    all += (i == 0 ? "" : " ") + std::string(info_.strings + Bsd_Symbol(&info_, i)->n_strx);
  }
  EXPECT_EQ(Bsd_Symbol(&info_, -1), nullptr);
  EXPECT_EQ(Bsd_Symbol(&info_, info_.symbol_count), nullptr);
  return all;
}

// Their values, sorted; and by their names if they have any.
std::string Aout::values() const {
  std::vector<std::string> all;
  for (int32_t i = 0; i < info_.symbol_count; ++i) {
    const aout::symbol* const symbol = Bsd_Symbol(&info_, i);
    EXPECT_TRUE(i == 0 || symbol[-1].n_value <= symbol->n_value) << i;
    all.push_back(info_.strings + symbol->n_strx + ("=" + fields({symbol->n_value})));
  }
  std::ranges::sort(all);
  std::string text;
  for (const std::string& one : all) {
    text += (text.empty() ? "" : " ") + one;
  }
  return text;
}

// A record with sizes of its own: style, page, number of symbols, and offsets.
std::string laid_out(uint16_t machine, uint16_t magic) {
  bsd_info info = {};
  info.machine = machine;
  info.magic = magic;
  info.text_size = 20;
  info.data_size = 10;
  info.text_reloc_size = 3;
  info.data_reloc_size = 4;
  info.symbol_table_size = 24;
  info.base_offset = 100;
  Bsd_InitInfo(&info);
  std::string text = info.style_paged != 0 ? "paged" : info.style_small != 0 ? "small" : "other";
  EXPECT_EQ(info.style_paged + info.style_small + info.style_other, 1);
  text += ":" + fields({info.page_size, static_cast<uint32_t>(info.symbol_count)});
  for (uint32_t part = 0; part < bsd_part::kCount; ++part) {
    text += ":" + fields({info.relative_offsets[part]});
    EXPECT_EQ(info.file_offsets[part], info.relative_offsets[part] + 100);
  }
  return text;
}

std::string addresses(const bsd_info& info) {
  const uint32_t* const given = info.load_addresses;
  return fields({given[0], given[1], given[2], given[3], given[4]});
}

// The load addresses of a record of a style, found once.
std::string loaded(const std::string& style, uint16_t magic, uint32_t entry, uint32_t text_size) {
  bsd_info info = {};
  info.style_paged = style == "paged" ? 1 : 0;
  info.style_small = style == "small" ? 1 : 0;
  info.style_other = style == "other" ? 1 : 0;
  info.page_size = style == "other" ? 0x20000 : 8192;
  info.magic = magic;
  info.entry = entry;
  info.text_size = text_size;
  info.data_size = 0x30;
  info.bss_size = 0x500;
  const file_ptr stream = stream_of(Bytes{});
  Bsd_ComputeLoadAddresses(stream.get(), &info);
  const std::string found = addresses(info);
  info.entry += 0x100000;
  Bsd_ComputeLoadAddresses(stream.get(), &info);
  EXPECT_EQ(addresses(info), found);
  Bsd_FreeFile(&info);
  return found;
}

// Compares two symbols of these types and values in one of the orders.
std::string compared(uint8_t type1, uint32_t value1, uint8_t type2, uint32_t value2) {
  const aout::symbol first = {0, type1, 0, 0, value1};
  const aout::symbol second = {0, type2, 0, 0, value2};
  return std::to_string(Bsd_ValueCmp(nullptr, &first, &second)) + ":" +
         std::to_string(Bsd_AddressCmp(nullptr, &first, &second));
}

std::vector<Operation> Aout::operations() {
  using Text = const std::string&;
  // clang-format off
  return {
      KELVANE_OPERATION(laid_out), KELVANE_OPERATION(loaded), KELVANE_OPERATION(compared),
      {"read", [this](Text digits, int64_t offset) { return read(digits, offset); }},
      {"symbols", [this](Text) {
        const int32_t count = Bsd_ReadSymbolAndStringTable(stream_.get(), &info_);
        EXPECT_EQ(Bsd_ReadSymbolAndStringTable(stream_.get(), &info_), count);
        return std::to_string(count) + ":" + std::to_string(info_.string_size) + ":" + (info_.strings == nullptr ? "none" : "strings");
      }},
      {"symbol", [this](int32_t index) {
        const aout::symbol* const s = Bsd_Symbol(&info_, index);
        return fields({s->n_strx, s->n_type, s->n_other, s->n_desc, s->n_value});
      }},
      {"name_at", [this](int32_t index, uint32_t place) { Bsd_Symbol(&info_, index)->n_strx = place; return ""; }},
      {"rewritten", [this](Text) { return rewritten(); }},
      {"addresses", [this](Text) { Bsd_ComputeLoadAddresses(stream_.get(), &info_); return addresses(info_); }},
      {"names", [this](Text) { return names(); }},
      {"by_value", [this](Text) { Bsd_SortSymbolsByValue(&info_); return names(); }},
      {"by_address", [this](Text) { Bsd_SortSymbolsByAddress(&info_); return names(); }},
      {"by_name", [this](Text) { Bsd_SortSymbolsByName(&info_); return info_.strings == nullptr || Bsd_Symbol(&info_, 0)->n_strx > 0x1000 ? "" : names(); }},
      {"sizes", [this](Text) { Bsd_SortSymbolsBySizeAndSetToValue(&info_); return values(); }},
      {"keep_all", [this](Text) { return Bsd_FilterSymbols(&info_, nullptr); }},
      {"keep_none", [this](Text) { return Bsd_FilterSymbols(&info_, [](const bsd_info*, const aout::symbol*) { return true; }); }},
      {"no_debug", [this](Text) { return Bsd_FilterDebugSymbols(&info_); }},
      {"no_lines", [this](Text) { return Bsd_FilterDebugAndQVRLineSymbols(&info_); }},
      {"text", [this](Text) { return digits_of(Bsd_ReadText(stream_.get(), &info_) != nullptr ? Bytes(info_.text, info_.text + info_.text_size) : Bytes{}); }},
      {"data", [this](Text) { return Bsd_ReadData(stream_.get(), &info_) != nullptr; }},
      {"text_reloc", [this](Text) { return Bsd_ReadTextReloc(stream_.get(), &info_) != nullptr; }},
      {"data_reloc", [this](Text) { return Bsd_ReadDataReloc(stream_.get(), &info_) != nullptr; }},
  };
  // clang-format on
}

TEST_F(Aout, GivesWhatTheTableTells) {
  check_table(operations(), KELVANE_TABLES "indbsdio.table");
}

TEST_F(Aout, ARecordAndABufferAreMadeWhereNoneIsGiven) {
  Bytes bytes = {0, 1, 1, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 24};
  bytes.resize(56);
  bytes[55] = 9;
  const file_ptr stream = stream_of(bytes);
  bsd_info* const info = Bsd_ReadHeader(stream.get(), nullptr, nullptr, nullptr, -1);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->symbol_count, 2);
  EXPECT_EQ(info->names[0], nullptr);
  std::fseek(stream.get(), static_cast<long>(info->file_offsets[bsd_part::kSymbols]), SEEK_SET);
  const malloc_ptr<aout::symbol> two(Bsd_ReadSymbol(stream.get(), nullptr, 2, -1));
  ASSERT_NE(two, nullptr);
  EXPECT_EQ(two.get()[1].n_value, 9U);
  Bsd_FreeFile(info);
  EXPECT_EQ(info->magic, 0);
  std::free(info);
}

TEST_F(Aout, MoreSymbolsThanTheFileHasAreAFailureThatMayBeRecorded) {
  endian = 1;
  for (const uint32_t count : {4U, 400U, UINT32_MAX / 12, UINT32_MAX}) {
    int32_t failure = 0;
    elf_seterrorcond(&failure);
    EXPECT_EQ(Bsd_ReadSymbol(stream_of(Bytes(40)).get(), nullptr, count, 0), nullptr) << count;
    EXPECT_EQ(failure, -1) << count;
  }
}

}  // namespace
}  // namespace kelvane
