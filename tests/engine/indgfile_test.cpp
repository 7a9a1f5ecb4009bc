#include "indgfile.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "bytes.h"
#include "captured_run.h"
#include "indgen_memory.h"
#include "reset_state.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

constexpr uint32_t kVariable = 5;  // a file version that selects the variable forms
constexpr size_t kHeaderSize = 20;
constexpr bool kLittleHost = std::endian::native == std::endian::little;

// A header, correct as it stands: type 9, fixed forms, 32-bit addresses.
Bytes header(std::initializer_list<std::pair<size_t, uint8_t>> changes = {}) {
  Bytes bytes = {0x7F, 'Q', 'V', 'R', 0, 0, 0, 1, 0, 0, 0, 9, 0, 0, 0, 0, 4, 0, 0, 0};
  for (const auto& [offset, value] : changes) {
    bytes[offset] = value;
  }
  return bytes;
}

// Writes structured files into a directory of its own and reads them back.
class StructuredFile : public testing::Test {
 protected:
  StructuredFile() { reset_all_state(); }

  // Writes a file by `put` and gives what stands behind its header.
  template <typename Put>
  Bytes written(uint32_t file_version, int32_t address_mode, Put put, uint8_t raw_arrays = 0) {
    GFile file{};
    EXPECT_EQ(gf_open_for_write(&file, nullptr, name_.c_str(), 9, file_version, address_mode, 0,
                                raw_arrays),
              &file);
    put(&file);
    EXPECT_EQ(gf_got_error(&file), 0);
    EXPECT_EQ(gf_close(&file), 1);
    return bytes_of(folder_.read("written").substr(kHeaderSize));
  }

  // Opens what `written` left, or a file of these contents.
  GFile* reopen() const { return gf_open_for_read(nullptr, nullptr, name_.c_str()); }
  GFile* open(const Bytes& start, const Bytes& rest = {}) const {
    const Bytes whole = joined({start, rest});
    folder_.write("written", std::string(whole.begin(), whole.end()));
    return reopen();
  }
  std::string error_line() const { return "error: Error while processing \"" + name_ + "\"\n"; }

  TemporaryDirectory folder_;
  std::string name_ = folder_.path("written");
};

// ---- Values there and back.

using Values = std::vector<int64_t>;

struct ValueCase {
  uint32_t file_version;
  int32_t address_mode;
  std::function<void(GFile*)> put;
  Bytes stored;
  std::function<Values(GFile*)> get;
  Values read;
};

template <typename T>
ValueCase one(uint32_t file_version, void (*put)(GFile*, T), T (*get)(GFile*), T value,
              Bytes stored) {
  return {file_version,
          2,
          [=](GFile* file) { put(file, value); },
          std::move(stored),
          [=](GFile* file) { return Values{static_cast<int64_t>(get(file))}; },
          {static_cast<int64_t>(value)}};
}

template <typename T>
ValueCase two(uint32_t file_version, void (*put)(GFile*, T, T), void (*get)(GFile*, T*, T*),
              std::array<T, 2> v, Bytes stored) {
  return {file_version,
          2,
          [=](GFile* file) { put(file, v[0], v[1]); },
          std::move(stored),
          [=](GFile* file) {
            std::array<T, 2> r{};
            get(file, &r[0], &r[1]);
            return Values(r.begin(), r.end());
          },
          Values(v.begin(), v.end())};
}

ValueCase three(uint32_t file_version, void (*put)(GFile*, int32_t, int32_t, int32_t),
                void (*get)(GFile*, int32_t*, int32_t*, int32_t*), std::array<int32_t, 3> v,
                Bytes stored) {
  return {file_version,
          2,
          [=](GFile* file) { put(file, v[0], v[1], v[2]); },
          std::move(stored),
          [=](GFile* file) {
            std::array<int32_t, 3> r{};
            get(file, &r[0], &r[1], &r[2]);
            return Values(r.begin(), r.end());
          },
          Values(v.begin(), v.end())};
}

// Addresses are read over a prior value; `read` tells low and high words.
constexpr gadr kPrior = {0x33333333, 0x44444444};

ValueCase address(int32_t mode, void (*put)(GFile*, const gadr*), void (*get)(GFile*, gadr*),
                  gadr value, Bytes stored, Values read) {
  return {kVariable,
          mode,
          [=](GFile* file) { put(file, &value); },
          std::move(stored),
          [=](GFile* file) {
            gadr r = kPrior;
            get(file, &r);
            return Values{r.low, r.high};
          },
          std::move(read)};
}

ValueCase addresses(uint32_t file_version, int32_t mode,
                    void (*put)(GFile*, const gadr*, const gadr*),
                    void (*get)(GFile*, gadr*, gadr*), std::array<gadr, 2> v, Bytes stored,
                    Values read) {
  return {file_version,
          mode,
          [=](GFile* file) { put(file, &v[0], &v[1]); },
          std::move(stored),
          [=](GFile* file) {
            gadr a = kPrior;
            gadr b = kPrior;
            get(file, &a, &b);
            return Values{a.low, a.high, b.low, b.high};
          },
          std::move(read)};
}

constexpr gadr kA = {0x89AB4567, 7};
constexpr gadr kB = {0xFFFEFFFF, 8};
constexpr int64_t kNil = UINT32_MAX;
constexpr int64_t kOldLow = kPrior.low;
constexpr int64_t kOldHigh = kPrior.high;

// clang-format off
const ValueCase kValueCases[] = {
    one<uint8_t>(kVariable, gf_put_1, gf_get_1, 0x81, {0x81}),
    one<uint16_t>(kVariable, gf_put_2, gf_get_2, 0x8203, {0x82, 0x03}),
    one<uint32_t>(kVariable, gf_put_4, gf_get_4, 0x84050607, {0x84, 5, 6, 7}),
    one<uint64_t>(kVariable, gf_put_8, gf_get_8, 0x08090A0B8C0D0E0F, {8, 9, 10, 11, 0x8C, 13, 14, 15}),
    one<uint16_t>(kVariable, gf_put_adr16, gf_get_adr16, 0x9011, {0x90, 0x11}),
    one<uint32_t>(kVariable, gf_put_adr32, gf_get_adr32, 0x92131415, {0x92, 0x13, 0x14, 0x15}),
    // Groups of seven bits, unsigned.
    one<uint32_t>(0, gf_put_un, gf_get_un, 300, {0, 0, 1, 0x2C}),
    one<uint32_t>(kVariable, gf_put_un, gf_get_un, 300, {0xAC, 0x02}),
    one<uint32_t>(kVariable, gf_put_un, gf_get_un, 0, {0}),
    one<uint32_t>(kVariable, gf_put_un, gf_get_un, 127, {0x7F}),
    one<uint32_t>(kVariable, gf_put_un, gf_get_un, 128, {0x80, 1}),
    one<uint32_t>(kVariable, gf_put_un, gf_get_un, UINT32_MAX, {0xFF, 0xFF, 0xFF, 0xFF, 0x0F}),
    // And signed.
    one<int32_t>(0, gf_put_sn, gf_get_sn, -2, {0xFF, 0xFF, 0xFF, 0xFE}),
    one<int32_t>(kVariable, gf_put_sn, gf_get_sn, 0, {0}),
    one<int32_t>(kVariable, gf_put_sn, gf_get_sn, -1, {0x7F}),
    one<int32_t>(kVariable, gf_put_sn, gf_get_sn, 63, {0x3F}),
    one<int32_t>(kVariable, gf_put_sn, gf_get_sn, 64, {0xC0, 0}),
    one<int32_t>(kVariable, gf_put_sn, gf_get_sn, -64, {0x40}),
    one<int32_t>(kVariable, gf_put_sn, gf_get_sn, -65, {0xBF, 0x7F}),
    one<int32_t>(kVariable, gf_put_sn, gf_get_sn, -129, {0xFF, 0x7E}),
    one<int32_t>(kVariable, gf_put_sn, gf_get_sn, INT32_MAX, {0xFF, 0xFF, 0xFF, 0xFF, 7}),
    one<int32_t>(kVariable, gf_put_sn, gf_get_sn, INT32_MIN, {0x80, 0x80, 0x80, 0x80, 0x78}),
    // -1 of an index in one byte; what follows an index as a difference.
    one<int32_t>(kVariable, gf_put_iss, gf_get_iss, -1, {0}),
    one<int32_t>(kVariable, gf_put_ind, gf_get_ind, 127, {0x80, 1}),
    one<int32_t>(0, gf_put_iss, gf_get_iss, -1, {0xFF, 0xFF, 0xFF, 0xFF}),
    two<int32_t>(kVariable, gf_put_iss_2, gf_get_iss_2, {9, 7}, {0x0A, 0x7E}),
    two<int32_t>(0, gf_put_iss_2, gf_get_iss_2, {9, 7}, {0, 0, 0, 9, 0, 0, 0, 7}),
    two<int32_t>(kVariable, gf_put_ind_2, gf_get_ind_2, {-1, 3}, {0, 4}),
    two<int32_t>(0, gf_put_ind_2, gf_get_ind_2, {-1, 3}, {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 3}),
    three(kVariable, gf_put_iss_3, gf_get_iss_3, {0, 100, 98}, {1, 0xE4, 0, 0x7E}),
    three(0, gf_put_iss_3, gf_get_iss_3, {0, 100, 98}, {0, 0, 0, 0, 0, 0, 0, 100, 0, 0, 0, 98}),
    three(kVariable, gf_put_ind_3, gf_get_ind_3, {INT32_MIN, INT32_MAX, INT32_MAX},
          {0x81, 0x80, 0x80, 0x80, 8, 0x7F, 0}),
    three(0, gf_put_ind_3, gf_get_ind_3, {INT32_MIN, INT32_MAX, INT32_MAX},
          {0x80, 0, 0, 0, 0x7F, 0xFF, 0xFF, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF}),
    // Pairs of addresses; the difference is that of the unsigned values.
    two<uint16_t>(kVariable, gf_put_adr16_2, gf_get_adr16_2, {0xFFFF, 1}, {0xFF, 0xFF, 0x82, 0x80, 0x7C}),
    two<uint16_t>(0, gf_put_adr16_2, gf_get_adr16_2, {0xFFFF, 1}, {0xFF, 0xFF, 0, 1}),
    two<uint32_t>(kVariable, gf_put_adr32_2, gf_get_adr32_2, {UINT32_MAX, 1}, {0xFF, 0xFF, 0xFF, 0xFF, 2}),
    two<uint32_t>(0, gf_put_adr32_2, gf_get_adr32_2, {UINT32_MAX, 1}, {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 1}),
    addresses(kVariable, 2, gf_put_adr64_2, gf_get_adr64_2, {{{5, 1}, {4, 3}}},
              {0, 0, 0, 1, 0, 0, 0, 5, 2, 0x7F}, {5, 1, 4, 3}),
    addresses(0, 2, gf_put_adr64_2, gf_get_adr64_2, {{{5, 1}, {4, 3}}},
              {0, 0, 0, 1, 0, 0, 0, 5, 0, 0, 0, 3, 0, 0, 0, 4}, {5, 1, 4, 3}),
    // What counts of an address in its mode: offset; segment and offset; low word; both words.
    address(0, gf_put_adr, gf_get_adr, kA, {0x45, 0x67}, {0x33334567, kOldHigh}),
    address(1, gf_put_adr, gf_get_adr, kA, {0xAB, 0x93, 0x02, 0x45, 0x67}, {kA.low, kOldHigh}),
    address(2, gf_put_adr, gf_get_adr, kA, {0x89, 0xAB, 0x45, 0x67}, {kA.low, kOldHigh}),
    address(3, gf_put_adr, gf_get_adr, kA, {0, 0, 0, 7, 0x89, 0xAB, 0x45, 0x67}, {kA.low, 7}),
    address(4, gf_put_adr, gf_get_adr, kA, {}, {kOldLow, kOldHigh}),
    address(2, gf_put_adr64, gf_get_adr64, kA, {0, 0, 0, 7, 0x89, 0xAB, 0x45, 0x67}, {kA.low, 7}),
    address(0, gf_put_adr, gf_get_adr, kB, {0xFF, 0xFF}, {kNil, kNil}),
    address(2, gf_put_adr, gf_get_adr, {UINT32_MAX, 7}, {0xFF, 0xFF, 0xFF, 0xFF}, {kNil, kNil}),
    addresses(kVariable, 0, gf_put_adr_2, gf_get_adr_2, {kA, kB}, {0x45, 0x67, 0x98, 0xF5, 0x02},
              {0x33334567, kOldHigh, kNil, kNil}),
    addresses(kVariable, 1, gf_put_adr_2, gf_get_adr_2, {kA, kB},
              {0xAB, 0x93, 0x02, 0xFE, 0xFF, 0x03, 0x45, 0x67, 0x98, 0xF5, 0x02}, {kA.low, kOldHigh, kNil, kNil}),
    addresses(kVariable, 2, gf_put_adr_2, gf_get_adr_2, {kA, kB},
              {0x89, 0xAB, 0x45, 0x67, 0x98, 0xF5, 0xCE, 0xB2, 0x07}, {kA.low, kOldHigh, kB.low, kOldHigh}),
    addresses(kVariable, 3, gf_put_adr_2, gf_get_adr_2, {kA, kB},
              {0, 0, 0, 7, 0x89, 0xAB, 0x45, 0x67, 0x01, 0x98, 0xF5, 0xCE, 0xB2, 0x07}, {kA.low, 7, kB.low, 8}),
    addresses(kVariable, 4, gf_put_adr_2, gf_get_adr_2, {kA, kB}, {}, {kOldLow, kOldHigh, kOldLow, kOldHigh}),
};
// clang-format on

TEST_F(StructuredFile, StoresEachValueAsTheTableSaysAndReadsItBack) {
  for (const ValueCase& value : kValueCases) {
    SCOPED_TRACE("row " + std::to_string(&value - kValueCases));
    // A byte that is no mode's own encoding is written for an unknown mode, so the header is told.
    const int32_t mode_at_opening = value.address_mode > 3 ? 2 : value.address_mode;
    EXPECT_EQ(written(value.file_version, mode_at_opening,
                      [&](GFile* file) {
                        file->address_mode = value.address_mode;
                        value.put(file);
                      }),
              value.stored);
    GFile* const file = reopen();
    file->address_mode = value.address_mode;
    EXPECT_EQ(value.get(file), value.read);
    EXPECT_EQ(gf_tell(file, nullptr), static_cast<int32_t>(kHeaderSize + value.stored.size()));
    gf_close(file);
  }
}

TEST_F(StructuredFile, ReadsZeroWhereANumberIsCutAndDropsBitsBeyondThirtyTwo) {
  const Bytes variable = header({{15, kVariable}});
  GFile* file = open(variable, {0xAC});
  EXPECT_EQ(gf_get_un(file), 0U);
  EXPECT_EQ(gf_get_un(file), 0U);
  EXPECT_EQ(gf_get_iss(file), -1);
  EXPECT_EQ(gf_get_4(file), 0U);
  EXPECT_EQ(gf_get_str(file), nullptr);
  gf_close(file);
  file = open(variable, {0xFF});
  EXPECT_EQ(gf_get_sn(file), 0);
  gf_close(file);
  file = open(variable, {0x81, 0x80, 0x80, 0x80, 0xF0, 0x80, 0xFF, 0x01, 0x05});
  EXPECT_EQ(gf_get_un(file), 1U);
  EXPECT_EQ(gf_get_un(file), 5U);
  gf_close(file);
}

TEST_F(StructuredFile, TellsANullStringFromAnEmptyOneAndBelievesALengthOnlyAsFarAsTheFileGoes) {
  const std::string long_string(10000, 'k');
  const auto put = [&](GFile* file) {
    for (const char* const string : {static_cast<const char*>(nullptr), "", "ab"}) {
      gf_put_str(file, string);
    }
  };
  EXPECT_EQ(written(0, 2, put), (Bytes{0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 3, 'a', 'b', 0}));
  EXPECT_EQ(written(kVariable, 2, put), (Bytes{0, 1, 0, 3, 'a', 'b', 0}));
  GFile* file = reopen();
  EXPECT_EQ(gf_get_str(file), nullptr);
  EXPECT_STREQ(gen_ptr<char>(gf_get_str(file)).get(), "");
  EXPECT_STREQ(gen_ptr<char>(gf_get_str(file)).get(), "ab");
  gf_close(file);
  written(0, 2, [&](GFile* stored) { gf_put_str(stored, long_string.c_str()); });
  file = reopen();
  EXPECT_EQ(gen_ptr<char>(gf_get_str(file)).get(), long_string);
  gf_close(file);
  file = open(header(), {0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b'});
  EXPECT_STREQ(gen_ptr<char>(gf_get_str(file)).get(), "ab");
  gf_close(file);
  file = open(header(), {0, 0, 0, 2, 'a', 'b', 'c'});  // no terminator
  EXPECT_STREQ(gen_ptr<char>(gf_get_str(file)).get(), "ab");
  EXPECT_EQ(gf_get_1(file), 'c');
  gf_close(file);
}

// ---- Opening and closing.

TEST_F(StructuredFile, BeginsWithTheseTwentyBytesAndMayLieInsideAnotherFile) {
  const file_ptr stream(std::tmpfile());
  std::fseek(stream.get(), 100, SEEK_SET);
  GFile file{};
  ASSERT_EQ(gf_open_for_write(&file, stream.get(), "inner", 7, 0, 3, 0, 0), &file);
  EXPECT_EQ(file.base, 100);
  EXPECT_STREQ(file.name, "inner");
  EXPECT_EQ(file.owns_file, 0);
  EXPECT_EQ(file.writing, 1);
  EXPECT_EQ(file.format_version, 1);
  EXPECT_EQ(file.file_type, 7U);
  EXPECT_EQ(file.mapping, gf_get_nil_file_memory_mapping_handle());
  EXPECT_EQ(file.mapping_size, UINT32_MAX);
  int32_t position = 0;
  EXPECT_EQ(gf_tell(&file, &position), 20);
  EXPECT_EQ(position, 20);
  gf_put_1(&file, 0xAA);
  EXPECT_EQ(gf_seek(&file, 21), 0);
  EXPECT_EQ(std::ftell(stream.get()), 121);
  EXPECT_EQ(gf_close(&file), 1);
  EXPECT_EQ(file.fp, nullptr);
  ASSERT_EQ(std::fputc('x', stream.get()), 'x');  // the stream is the caller's and stays usable
  std::fseek(stream.get(), 100, SEEK_SET);
  Bytes bytes(22);
  ASSERT_EQ(std::fread(bytes.data(), 1, bytes.size(), stream.get()), 22U);
  EXPECT_EQ(bytes, (Bytes{0x7F, 0x51, 0x56, 0x52, 0, 0, 0, 1, 0, 0,    0,
                          7,    0,    0,    0,    0, 8, 0, 0, 0, 0xAA, 'x'}));
  std::fseek(stream.get(), 100, SEEK_SET);
  ASSERT_NE(gf_open_for_read(&file, stream.get(), nullptr), nullptr);
  EXPECT_EQ(file.base, 100);
  EXPECT_EQ(file.name, nullptr);
  EXPECT_EQ(file.address_mode, 3);
  gf_open_memory_mapping(&file, 0, nullptr, nullptr);  // only with a base of 0
  EXPECT_EQ(file.mapping, gf_get_nil_file_memory_mapping_handle());
  gf_close(&file);
}

TEST_F(StructuredFile, ReadsItsHeaderBack) {
  written(0x01020304, 1, [](GFile*) {});
  GFile* const file = reopen();
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->file_type, 9U);
  EXPECT_EQ(file->file_version, 0x01020304U);
  EXPECT_EQ(file->address_mode, 1);
  EXPECT_EQ(file->allocated, 1);
  EXPECT_EQ(file->owns_file, 1);
  EXPECT_EQ(file->writing, 0);
  EXPECT_EQ(file->name, name_);
  EXPECT_EQ(gf_is_eof(file), 0);
  EXPECT_EQ(gf_get_1(file), 0);
  EXPECT_EQ(gf_is_eof(file), 1);
  EXPECT_EQ(gf_close(file), 1);
}

TEST_F(StructuredFile, RefusesAHeaderThatItCannotReadWithoutAWord) {
  const CapturedRun run = capture([this] {
    for (const Bytes& refused : {header({{0, 0x7E}}), header({{3, 'r'}}), header({{7, 2}}),
                                 header({{19, 1}}), header({{17, 1}, {19, 1}}), Bytes{}}) {
      EXPECT_EQ(open(refused), nullptr) << testing::PrintToString(refused);
    }
    Bytes cut = header();
    cut.pop_back();
    EXPECT_EQ(open(cut), nullptr);
    EXPECT_EQ(gf_open_for_read(nullptr, nullptr, folder_.path("missing").c_str()), nullptr);
    EXPECT_EQ(gf_open_for_write(nullptr, nullptr, folder_.name().c_str(), 7, 0, 2, 0, 0), nullptr);
  });
  EXPECT_EQ(run.errors, "");
  GFile* const file = open(header({{4, 0x80}}));  // below 1 as a signed number
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->format_version, INT32_MIN + 1);
  gf_close(file);
}

TEST_F(StructuredFile, HasNoDescriptors) {
  GFile handle{};
  handle.file_type = 77;
  const CapturedRun read = capture([&] {
    EXPECT_EQ(open(header({{17, 1}})), nullptr);
    EXPECT_EQ(gf_open_for_read(&handle, nullptr, name_.c_str()), nullptr);
  });
  EXPECT_EQ(read.errors,
            "error: GFile desciptors not supported\nerror: GFile desciptors not supported\n");
  EXPECT_EQ(handle.file_type, 0U);  // cleared
  EXPECT_EQ(handle.fp, nullptr);
  const CapturedRun write = capture([&] {
    ASSERT_NE(gf_open_for_write(&handle, nullptr, name_.c_str(), 9, 0, 2, 1, 0), nullptr);
    EXPECT_EQ(handle.descriptors, 0);
    gf_close(&handle);
  });
  EXPECT_EQ(write.errors, "warning: GFile desciptors not supported\n");
  EXPECT_EQ(bytes_of(folder_.read("written")), header());
}

// ---- Errors.

TEST_F(StructuredFile, ReportsOnlyTheFirstErrorOfAHandleAndTellsEachStickyOne) {
  const std::pair<void (*)(GFile*), uint8_t GFile::*> errors[] = {
      {gf_set_descriptor_error, &GFile::descriptor_error},
      {gf_set_constval_error, &GFile::constval_error},
      {[](GFile* file) { gf_put_uc(file, 3, 4); }, &GFile::constval_error},
      {[](GFile* file) { gf_put_sc(file, -3, 3); }, &GFile::constval_error},
      {gf_set_alignpad_error, &GFile::alignpad_error},
      {gf_set_file_memory_mapping_error, &GFile::mapping_error}};
  for (const auto& [set, flag] : errors) {
    GFile file{};
    const CapturedRun run = capture([&, set = set] {
      gf_put_uc(&file, 3, 3);
      gf_put_sc(&file, -3, -3);
      EXPECT_EQ(gf_got_error(&file), 0);
      set(&file);
      set(&file);
    });
    EXPECT_EQ(run.errors, "error: Error while processing \"UNKNOWN\"\n");
    EXPECT_EQ(file.*flag, 1);
    EXPECT_EQ(gf_got_error(&file), 1);
  }
}

TEST_F(StructuredFile, ReportsWhatTheStreamRefuses) {
  GFile file{};
  EXPECT_EQ(capture([&] {
              ASSERT_NE(gf_open_for_write(&file, nullptr, "/dev/full", 7, 0, 2, 0, 0), nullptr);
              EXPECT_EQ(gf_close(&file), 1);
            }).errors,
            "fatal: Error while processing \"/dev/full\": No space left on device\n");
  // Without a buffer the header itself fails.
  const file_ptr full(std::fopen("/dev/full", "w"));
  std::setvbuf(full.get(), nullptr, _IONBF, 0);
  EXPECT_EQ(gf_open_for_write(nullptr, full.get(), nullptr, 7, 0, 2, 0, 0), nullptr);

  EXPECT_EQ(capture([this] {
              GFile* const seeking = open(header());
              EXPECT_EQ(gf_seek(seeking, -1), -1);
              gf_close(seeking);
            }).errors,
            "fatal: Error while processing \"" + name_ + "\": Invalid argument\n");
  GFile pipe{};
  pipe.fp = ::popen("true", "r");
  EXPECT_EQ(capture([&] {
              int32_t position = 0;
              EXPECT_EQ(gf_tell(&pipe, &position), -1);
              EXPECT_EQ(position, -1);
              gf_skip_array_1(&pipe, 1);
              gf_put_alignpad(&pipe, 4);  // no position, no padding
            }).errors,
            "fatal: Error while processing \"UNKNOWN\": Illegal seek\n");
  ::pclose(pipe.fp);
  EXPECT_EQ(capture([&] {
              GFile unowned{};
              EXPECT_EQ(gf_is_eof(&unowned), 0);
              unowned.fp = stdin;
              EXPECT_EQ(gf_is_eof(&unowned), 0);
            }).errors,
            "warning: [gf_check_eof]: fp==NULL\nwarning: [gf_check_eof]: fp==unowned\n");
}

// ---- Padding and arrays.

TEST_F(StructuredFile, PadsInDescendingOrderAndChecksThePad) {
  EXPECT_EQ(written(0, 2,
                    [](GFile* file) {
                      gf_put_alignpad(file, 4);  // 20 is aligned
                      gf_put_1(file, 0x11);
                      gf_put_alignpad(file, 0);
                      gf_put_alignpad(file, 1);
                      gf_put_alignpad(file, 4);
                      gf_put_1(file, 0x22);
                    }),
            (Bytes{0x11, 0xAD, 0xAC, 0xAB, 0x22}));
  for (const bool good : {true, false}) {
    const CapturedRun run = capture([&] {
      GFile* const file = open(header(), good ? Bytes{0x11, 0xAD, 0xAC, 0xAB, 0x22}
                                              : Bytes{0x11, 0xAD, 0xAB, 0xAC, 0x22});
      gf_get_1(file);
      gf_get_alignpad(file, 4);
      EXPECT_EQ(gf_get_1(file), 0x22);  // carried on
      EXPECT_EQ(file->alignpad_error, good ? 0 : 1);
      gf_close(file);
    });
    EXPECT_EQ(run.errors, good ? "" : error_line());
  }
}

TEST_F(StructuredFile, StoresWordsOneByOneOrRawInTheHostsOrder) {
  const std::array<uint32_t, 2> words = {0x01020304, 0x05060708};
  const Bytes one_by_one = {0x11, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  const Bytes raw = kLittleHost ? Bytes{0x11, 0xAD, 0xAC, 0xAB, 4, 3, 2, 1, 8, 7, 6, 5, 9, 10}
                                : Bytes{0x11, 0xAD, 0xAC, 0xAB, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  for (const uint8_t raw_arrays : {uint8_t{0}, uint8_t{7}}) {
    EXPECT_EQ(written(
                  kVariable, 2,
                  [&](GFile* file) {
                    gf_put_1(file, 0x11);
                    gf_put_array_4(file, words.data(), 0);  // no padding either
                    gf_put_array_4(file, words.data(), 2);
                    gf_put_array_1(file, Bytes{9, 10}.data(), 2);
                  },
                  raw_arrays),
              raw_arrays == 0 ? one_by_one : raw);
    GFile* const file = reopen();
    EXPECT_EQ(file->swapped, 0);
    gf_get_1(file);
    gf_skip_array_4(file, 1);
    uint32_t read = 0;
    gf_get_array_4(file, &read, 1);
    EXPECT_EQ(read, 0x05060708U);
    gf_skip_array_1(file, 1);
    Bytes last(2, 0xEE);
    gf_get_array_1(file, last.data(), 2);
    EXPECT_EQ(last, (Bytes{10, 0xEE}));
    if (raw_arrays == 0) {
      gf_skip_array_4(file, UINT32_MAX);  // ends with the file
    }
    gf_close(file);
  }
}

TEST_F(StructuredFile, ReadsRawWordsOfEitherOrder) {
  for (const uint8_t mark : {uint8_t{1}, uint8_t{2}}) {
    GFile* const file =
        open(header({{18, mark}}), mark == 1 ? Bytes{1, 2, 3, 4} : Bytes{4, 3, 2, 1});
    EXPECT_EQ(file->raw_arrays, mark);
    uint32_t read = 0;
    gf_get_array_4(file, &read, 1);
    EXPECT_EQ(read, 0x01020304U);
    EXPECT_EQ(file->swapped != 0, (mark == 2) != kLittleHost);
    // Words of the other order can't be used where they stand.
    gf_open_memory_mapping(file, 1, nullptr, nullptr);
    EXPECT_EQ(gf_can_memory_map_array(file, 1), 1);
    EXPECT_EQ(gf_can_memory_map_array(file, 4), file->swapped != 0 ? 0 : 1);
    gf_close(file);
  }
  std::array<uint32_t, 2> words = {0x01020304, 0xA0B0C0D0};
  gf_swap_array_4(words.data(), 2);
  EXPECT_EQ(words, (std::array<uint32_t, 2>{0x04030201, 0xD0C0B0A0}));
}

// ---- Mapping.

TEST_F(StructuredFile, GivesArraysInTheMapping) {
  const std::array<uint32_t, 2> words = {0x01020304, 0x05060708};
  written(
      0, 2,
      [&](GFile* file) {
        gf_put_array_1(file, bytes_of("xyz").data(), 3);
        gf_put_array_4(file, words.data(), 2);
        gf_put_1(file, 0x99);
      },
      1);
  GFile* const file = reopen();
  void* address = nullptr;
  uint32_t size = 0;
  ASSERT_NE(gf_open_memory_mapping(file, 1, &address, &size),
            gf_get_nil_file_memory_mapping_handle());
  EXPECT_EQ(address, file->mapping);
  EXPECT_EQ(size, 33U);
  EXPECT_EQ(file->mapping_size, 33U);
  EXPECT_EQ(file->unmap_on_close, 1);
  const uint8_t* bytes = nullptr;
  gf_get_mapped_array_1(file, &bytes, 0);
  EXPECT_EQ(bytes, nullptr);
  gf_get_mapped_array_1(file, &bytes, 3);
  EXPECT_EQ(std::memcmp(bytes, "xyz", 3), 0);
  const uint32_t* mapped = nullptr;
  gf_get_mapped_array_4(file, &mapped, 2);
  EXPECT_EQ(mapped[1], 0x05060708U);
  EXPECT_EQ(gf_get_1(file), 0x99);
  EXPECT_EQ(gf_got_error(file), 0);
  EXPECT_EQ(capture([&] { gf_get_mapped_array_1(file, &bytes, 1); }).errors, error_line());
  EXPECT_EQ(bytes, nullptr);  // behind the end
  EXPECT_EQ(file->mapping_error, 1);
  gf_close(file);
}

TEST_F(StructuredFile, HasAMappingErrorWithoutAMapping) {
  for (const bool map : {false, true}) {  // mapped, but without raw arrays
    const CapturedRun run = capture([&] {
      GFile* const file = open(header(), bytes_of("abcd"));
      if (map) {
        gf_open_memory_mapping(file, 1, nullptr, nullptr);
      }
      const uint8_t byte = 0;
      const uint8_t* bytes = &byte;
      const uint32_t word = 0;
      const uint32_t* words = &word;
      gf_get_mapped_array_4(file, &words, 0);
      EXPECT_EQ(words, &word);
      EXPECT_EQ(gf_can_memory_map_array(file, 4), 0);
      EXPECT_EQ(file->mapping_error, 0);
      if (!map) {
        gf_get_mapped_array_1(file, &bytes, 1);
        EXPECT_EQ(bytes, nullptr);
        EXPECT_EQ(file->mapping_error, 1);
      }
      gf_get_mapped_array_4(file, &words, 1);
      EXPECT_EQ(words, nullptr);
      EXPECT_EQ(file->mapping_error, 1);
      gf_close(file);
    });
    EXPECT_EQ(run.errors, error_line());
  }
}

TEST_F(StructuredFile, KeepsAMappingBeyondItsCloseUnlessAsked) {
  GFile* const file = open(header(), bytes_of("abcd"));
  uint32_t size = 0;
  void* mapping = nullptr;
  gf_open_memory_mapping(file, 0, &mapping, &size);
  gf_close(file);
  EXPECT_EQ(static_cast<const char*>(mapping)[20], 'a');
  gf_close_memory_mapping(nullptr, mapping, size);
  gf_close_memory_mapping(nullptr, gf_get_nil_file_memory_mapping_handle(), 0);  // nothing to do

  GFile* const other = reopen();
  gf_open_memory_mapping(other, 1, nullptr, nullptr);
  gf_close_memory_mapping(other, gf_get_nil_file_memory_mapping_handle(), 0);
  EXPECT_EQ(other->mapping, gf_get_nil_file_memory_mapping_handle());
  EXPECT_EQ(other->mapping_size, UINT32_MAX);
  EXPECT_EQ(other->unmap_on_close, 0);
  gf_close(other);
}

TEST_F(StructuredFile, MapsOnlyWhatCanBeMapped) {
  GFile file{};
  ASSERT_NE(gf_open_for_write(&file, nullptr, name_.c_str(), 9, 0, 2, 0, 1), nullptr);
  void* address = &file;
  uint32_t size = 0;
  EXPECT_EQ(gf_open_memory_mapping(&file, 1, &address, &size),
            gf_get_nil_file_memory_mapping_handle());
  EXPECT_EQ(address, gf_get_nil_file_memory_mapping_handle());
  EXPECT_EQ(size, UINT32_MAX);
  EXPECT_EQ(file.unmap_on_close, 0);
  EXPECT_EQ(gf_can_memory_map_array(&file, 1), 0);
  gf_close(&file);
  EXPECT_EQ(gf_can_memory_map_array(nullptr, 4), 0);
  GFile mapped{};
  mapped.mapping = &mapped;
  mapped.raw_arrays = 1;
  EXPECT_EQ(gf_can_memory_map_array(&mapped, 4), 1);
  mapped.base = 6;
  EXPECT_EQ(gf_can_memory_map_array(&mapped, 4), 0);
  EXPECT_EQ(gf_can_memory_map_array(&mapped, 1), 1);
  EXPECT_EQ(capture([&] { EXPECT_EQ(gf_can_memory_map_array(&mapped, 2), 0); }).errors,
            "warning: GFile: [gf_can_map_hd_storage]: invalid array element size\n");
}

}  // namespace
}  // namespace kelvane
