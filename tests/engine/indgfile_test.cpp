#include "indgfile.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "captured_run.h"
#include "engine_fixture.h"
#include "indgen_memory.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

constexpr bool kHostIsBig = std::endian::native == std::endian::big;
constexpr uint8_t kHostMark = kHostIsBig ? 1 : 2;
constexpr uint8_t kOtherMark = kHostIsBig ? 2 : 1;
constexpr uint32_t kFixed = 0;
constexpr uint32_t kVariable = 3;

Bytes header(uint32_t file_version, uint8_t encoding = 4, uint8_t mark = 0) {
  return {0x7F,     'Q', 'V',  'R', 0, 0, 0, 1,
          0,        0,   0,    7,   0, 0, 0, static_cast<uint8_t>(file_version),
          encoding, 0,   mark, 0};
}

file_ptr stream_of(const Bytes& bytes) {
  file_ptr stream(std::tmpfile());
  std::fwrite(bytes.data(), 1, bytes.size(), stream.get());
  std::rewind(stream.get());
  return stream;
}

Bytes contents(std::FILE* stream) {
  Bytes bytes;
  std::rewind(stream);
  for (int byte = std::fgetc(stream); byte != EOF; byte = std::fgetc(stream)) {
    bytes.push_back(static_cast<uint8_t>(byte));
  }
  return bytes;
}

// What `put` writes behind the header.
Bytes written(uint32_t file_version, const std::function<void(GFile*)>& put, int32_t mode = 2,
              uint8_t raw_arrays = 0) {
  const file_ptr stream(std::tmpfile());
  GFile handle;
  EXPECT_EQ(gf_open_for_write(&handle, stream.get(), nullptr, 7, file_version, mode, 0, raw_arrays),
            &handle);
  put(&handle);
  EXPECT_EQ(gf_got_error(&handle), 0);
  gf_close(&handle);
  const Bytes all = contents(stream.get());
  return {all.begin() + 20, all.end()};
}

// A file open for reading behind its header, with `bytes` to come.
class Reader {
 public:
  Reader(const Bytes& head, const Bytes& bytes) : stream_(stream_of(joined({head, bytes}))) {
    EXPECT_EQ(gf_open_for_read(&handle_, stream_.get(), nullptr), &handle_);
  }
  Reader(uint32_t file_version, const Bytes& bytes) : Reader(header(file_version), bytes) {}
  ~Reader() { gf_close(&handle_); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  operator GFile*() { return &handle_; }
  GFile* operator->() { return &handle_; }
  bool at_end() { return std::fgetc(stream_.get()) == EOF; }

 private:
  file_ptr stream_;
  GFile handle_{};
};

class StructuredFile : public EngineTest {
 protected:
  TemporaryDirectory directory_;
};

TEST_F(StructuredFile, BeginsWithAHeaderOfTwentyBytes) {
  const Bytes expected = {0x7F, 0x51, 0x56, 0x52, 0, 0, 0, 1, 0, 0, 0, 7, 0, 0, 0, 0, 4, 0, 0, 0};
  const file_ptr stream(std::tmpfile());
  GFile handle;
  std::fill_n(reinterpret_cast<uint8_t*>(&handle), sizeof handle, uint8_t{0xEE});
  ASSERT_EQ(gf_open_for_write(&handle, stream.get(), nullptr, 7, 0, 2, 0, 0), &handle);
  EXPECT_EQ(handle.base, 0);
  EXPECT_EQ(handle.name, nullptr);
  EXPECT_EQ(handle.mapping, gf_get_nil_file_memory_mapping_handle());
  EXPECT_EQ(handle.mapping_size, 0xFFFFFFFFU);
  EXPECT_EQ(handle.writing, 1);
  EXPECT_EQ(handle.owns_file + handle.allocated + handle.got_error, 0);
  EXPECT_EQ(gf_close(&handle), 1);
  EXPECT_EQ(handle.fp, nullptr);
  EXPECT_EQ(contents(stream.get()), expected);
}

TEST_F(StructuredFile, CanLieInsideAnotherFile) {
  const file_ptr stream = stream_of(Bytes(100, 'x'));
  std::fseek(stream.get(), 0, SEEK_END);
  GFile handle;
  ASSERT_NE(gf_open_for_write(&handle, stream.get(), "in", 7, 0, 2, 0, 0), nullptr);
  EXPECT_EQ(handle.base, 100);
  int32_t position = 0;
  EXPECT_EQ(gf_tell(&handle, &position), 20);
  EXPECT_EQ(position, 20);
  gf_seek(&handle, 8);
  EXPECT_EQ(std::ftell(stream.get()), 108);
  gf_close(&handle);
  std::fputc('!', stream.get());  // the caller's stream is still open
  EXPECT_EQ(contents(stream.get())[108], '!');
}

TEST_F(StructuredFile, StoresAddressModeAndTheHostsArrayOrder) {
  const file_ptr stream(std::tmpfile());
  const CapturedRun run = capture([&] {
    GFile handle;
    gf_open_for_write(&handle, stream.get(), nullptr, 0x01020304, 0x05060708, 1, 1, 9);
    EXPECT_EQ(handle.descriptors, 0);
    gf_close(&handle);
  });
  EXPECT_EQ(run.errors, "warning: GFile desciptors not supported\n");
  EXPECT_EQ(contents(stream.get()),
            (Bytes{0x7F, 'Q', 'V', 'R', 0, 0, 0, 1, 1, 2, 3, 4, 5, 6, 7, 8, 66, 0, kHostMark, 0}));
  std::rewind(stream.get());
  GFile handle;
  ASSERT_NE(gf_open_for_read(&handle, stream.get(), nullptr), nullptr);
  EXPECT_EQ(handle.format_version, 1);
  EXPECT_EQ(handle.file_type, 0x01020304U);
  EXPECT_EQ(handle.file_version, 0x05060708U);
  EXPECT_EQ(handle.address_mode, 1);
  EXPECT_EQ(handle.raw_arrays, kHostMark);
  EXPECT_EQ(handle.swapped, 0);
  EXPECT_EQ(handle.writing, 0);
  gf_close(&handle);
}

TEST_F(StructuredFile, IsOpenedByNameToo) {
  const std::string name = directory_.path("file");
  GFile* handle = gf_open_for_write(nullptr, nullptr, name.c_str(), 7, 0, 2, 0, 0);
  ASSERT_NE(handle, nullptr);
  EXPECT_STREQ(handle->name, name.c_str());
  EXPECT_EQ(handle->owns_file + handle->allocated, 2);
  gf_put_1(handle, 0x55);
  gf_close(handle);
  EXPECT_EQ(bytes_of(directory_.read("file")), joined({header(0), {0x55}}));

  handle = gf_open_for_read(nullptr, nullptr, name.c_str());
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(gf_get_1(handle), 0x55);
  EXPECT_EQ(gf_is_eof(handle), 0);
  gf_get_1(handle);
  EXPECT_EQ(gf_is_eof(handle), 1);
  EXPECT_EQ(gf_got_error(handle), 0);
  gf_close(handle);

  const CapturedRun run = capture([&] {
    EXPECT_EQ(gf_open_for_read(nullptr, nullptr, directory_.path("none").c_str()), nullptr);
    EXPECT_EQ(gf_open_for_read(nullptr, nullptr, directory_.name().c_str()), nullptr);
    EXPECT_EQ(gf_open_for_write(nullptr, nullptr, directory_.name().c_str(), 7, 0, 2, 0, 0),
              nullptr);
  });
  EXPECT_EQ(run.errors, "");
}

TEST_F(StructuredFile, RefusesAWrongOrCutHeader) {
  struct Change {
    size_t place;
    uint8_t value;
  };
  struct Case {
    std::vector<Change> changes;
    bool opens;
    const char* errors;
  };
  const Case cases[] = {
      {{{0, 0x7E}}, false, ""},
      {{{3, 'r'}}, false, ""},
      {{{7, 2}}, false, ""},
      {{{4, 0x80}}, true, ""},  // a version below 1
      {{{19, 1}}, false, ""},
      {{{17, 1}}, false, "error: GFile desciptors not supported\n"},
      {{{17, 1}, {19, 1}}, false, ""},
      {{{16, 5}}, true, "error: [gadr_mode_from_encoding]: unknown mode!\n"},
  };
  for (const Case& one : cases) {
    Bytes bytes = header(0);
    for (const Change& change : one.changes) {
      bytes[change.place] = change.value;
    }
    const file_ptr stream = stream_of(bytes);
    const CapturedRun run = capture([&] {
      GFile handle;
      EXPECT_EQ(gf_open_for_read(&handle, stream.get(), nullptr) != nullptr, one.opens);
    });
    EXPECT_EQ(run.errors, one.errors) << one.changes[0].place;
  }
  for (size_t length = 0; length < 20; ++length) {
    Bytes bytes = header(0);
    bytes[17] = 1;
    bytes.resize(length);
    const file_ptr stream = stream_of(bytes);
    const CapturedRun run =
        capture([&] { EXPECT_EQ(gf_open_for_read(nullptr, stream.get(), nullptr), nullptr); });
    EXPECT_EQ(run.errors, "");
  }
}

TEST_F(StructuredFile, KeepsNumbersInTheFormOfItsVersion) {
  struct Case {
    std::function<void(GFile*)> put;
    std::function<bool(GFile*)> reads_back;
    Bytes fixed;
    Bytes variable;
  };
  const auto un = [](uint32_t value, Bytes fixed, Bytes variable) {
    return Case{[=](GFile* file) { gf_put_un(file, value); },
                [=](GFile* file) { return gf_get_un(file) == value; }, fixed, variable};
  };
  const auto sn = [](int32_t value, Bytes fixed, Bytes variable) {
    return Case{[=](GFile* file) { gf_put_sn(file, value); },
                [=](GFile* file) { return gf_get_sn(file) == value; }, fixed, variable};
  };
  const auto iss = [](int32_t value, Bytes fixed, Bytes variable) {
    return Case{[=](GFile* file) { gf_put_iss(file, value); },
                [=](GFile* file) { return gf_get_ind(file) == value; }, fixed, variable};
  };
  const auto iss_2 = [](int32_t a, int32_t b, Bytes fixed, Bytes variable) {
    return Case{[=](GFile* file) { gf_put_ind_2(file, a, b); },
                [=](GFile* file) {
                  int32_t first = 0;
                  int32_t second = 0;
                  gf_get_iss_2(file, &first, &second);
                  return first == a && second == b;
                },
                fixed, variable};
  };
  const Bytes same_1_2_4_8 = {0xFE, 0x01, 0x02, 0x01, 0x02, 0x03, 0x04, 1, 2, 3, 4, 5, 6, 7, 8};
  const Case cases[] = {
      {[](GFile* file) {
         gf_put_1(file, 0xFE);
         gf_put_2(file, 0x0102);
         gf_put_4(file, 0x01020304);
         gf_put_8(file, 0x0102030405060708);
       },
       [](GFile* file) {
         return gf_get_1(file) == 0xFE && gf_get_2(file) == 0x0102 &&
                gf_get_4(file) == 0x01020304 && gf_get_8(file) == 0x0102030405060708;
       },
       same_1_2_4_8, same_1_2_4_8},
      un(300, {0, 0, 1, 0x2C}, {0xAC, 0x02}),
      un(0, {0, 0, 0, 0}, {0}),
      un(127, {0, 0, 0, 0x7F}, {0x7F}),
      un(128, {0, 0, 0, 0x80}, {0x80, 1}),
      un(0xFFFFFFFF, {0xFF, 0xFF, 0xFF, 0xFF}, {0xFF, 0xFF, 0xFF, 0xFF, 0x0F}),
      sn(-1, {0xFF, 0xFF, 0xFF, 0xFF}, {0x7F}),
      sn(63, {0, 0, 0, 63}, {0x3F}),
      sn(64, {0, 0, 0, 64}, {0xC0, 0}),
      sn(-64, {0xFF, 0xFF, 0xFF, 0xC0}, {0x40}),
      sn(-129, {0xFF, 0xFF, 0xFF, 0x7F}, {0xFF, 0x7E}),
      sn(INT32_MIN, {0x80, 0, 0, 0}, {0x80, 0x80, 0x80, 0x80, 0x78}),
      sn(INT32_MAX, {0x7F, 0xFF, 0xFF, 0xFF}, {0xFF, 0xFF, 0xFF, 0xFF, 0x07}),
      iss(-1, {0xFF, 0xFF, 0xFF, 0xFF}, {0}),
      iss(299, {0, 0, 1, 0x2B}, {0xAC, 0x02}),
      iss_2(-1, 62, {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 62}, {0, 0x3F}),
      iss_2(INT32_MAX, INT32_MIN, {0x7F, 0xFF, 0xFF, 0xFF, 0x80, 0, 0, 0},
            {0x80, 0x80, 0x80, 0x80, 0x08, 0x01}),
      {[](GFile* file) { gf_put_iss_3(file, 5, 4, 70); },
       [](GFile* file) {
         int32_t a = 0;
         int32_t b = 0;
         int32_t c = 0;
         gf_get_ind_3(file, &a, &b, &c);
         return a == 5 && b == 4 && c == 70;
       },
       {0, 0, 0, 5, 0, 0, 0, 4, 0, 0, 0, 70},
       {6, 0x7F, 0xC2, 0}},
  };
  for (const Case& one : cases) {
    EXPECT_EQ(written(kFixed, one.put), one.fixed);
    EXPECT_EQ(written(kVariable, one.put), one.variable);
    Reader fixed(kFixed, one.fixed);
    EXPECT_TRUE(one.reads_back(fixed) && fixed.at_end());
    Reader variable(kVariable, one.variable);
    EXPECT_TRUE(one.reads_back(variable) && variable.at_end());
  }
}

TEST_F(StructuredFile, ReadsNumbersThatAreCutOrTooLong) {
  Reader empty(kVariable, {});
  EXPECT_EQ(gf_get_un(empty), 0U);
  EXPECT_EQ(gf_get_sn(empty), 0);
  Reader cut(kVariable, {0xFF, 0xFF});
  EXPECT_EQ(gf_get_un(cut), 0U);
  Reader longer(kVariable,
                {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x81, 0x80, 0x80, 0x80, 0x80, 0});
  EXPECT_EQ(gf_get_un(longer), 0xFFFFFFFFU);
  EXPECT_EQ(gf_get_sn(longer), 1);
  EXPECT_TRUE(longer.at_end());
}

TEST_F(StructuredFile, KeepsStrings) {
  const auto put = [](GFile* file) {
    gf_put_str(file, nullptr);
    gf_put_str(file, "");
    gf_put_str(file, "ab");
  };
  const Bytes fixed = {0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 3, 'a', 'b', 0};
  const Bytes variable = {0, 1, 0, 3, 'a', 'b', 0};
  EXPECT_EQ(written(kFixed, put), fixed);
  EXPECT_EQ(written(kVariable, put), variable);
  for (const uint32_t version : {kFixed, kVariable}) {
    Reader file(version, version == kFixed ? fixed : variable);
    EXPECT_EQ(gf_get_str(file), nullptr);
    EXPECT_STREQ(gen_ptr<char>(gf_get_str(file)).get(), "");
    EXPECT_STREQ(gen_ptr<char>(gf_get_str(file)).get(), "ab");
    EXPECT_TRUE(file.at_end());
  }
  const std::string text(20000, 'x');
  const Bytes long_string =
      written(kVariable, [&](GFile* file) { gf_put_str(file, text.c_str()); });
  Reader file(kVariable, long_string);
  EXPECT_EQ(gen_ptr<char>(gf_get_str(file)).get(), text);
  // A length is believed only as far as the file goes, and a missing terminator is made good.
  Reader hostile(kFixed, {0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b'});
  EXPECT_STREQ(gen_ptr<char>(gf_get_str(hostile)).get(), "ab");
}

TEST_F(StructuredFile, KeepsAddressesByMode) {
  const gadr first = {0x00021234, 0x89ABCDEF};
  const gadr second = {0x00011233, 0x89ABCDED};
  struct Case {
    int32_t mode;
    uint8_t encoding;
    Bytes one;
    Bytes two_fixed;
    Bytes two_variable;
    gadr read;      // of `one` into an address of all 5A
    gadr read_two;  // the second of `two`
  };
  const Case cases[] = {
      {0,
       2,
       {0x12, 0x34},
       {0x12, 0x34, 0x12, 0x33},
       {0x12, 0x34, 0x7F},
       {0x5A5A1234, 0x5A5A5A5A},
       {0x5A5A1233, 0x5A5A5A5A}},
      {1,
       66,
       {2, 0x12, 0x34},
       {0, 0, 0, 2, 0, 0, 0, 1, 0x12, 0x34, 0x12, 0x33},
       {2, 1, 0x12, 0x34, 0x7F},
       {0x00021234, 0x5A5A5A5A},
       {0x00011233, 0x5A5A5A5A}},
      {2,
       4,
       {0, 2, 0x12, 0x34},
       {0, 2, 0x12, 0x34, 0, 1, 0x12, 0x33},
       {0, 2, 0x12, 0x34, 0xFF, 0xFF, 0x7B},
       {0x00021234, 0x5A5A5A5A},
       {0x00011233, 0x5A5A5A5A}},
      {3,
       8,
       {0x89, 0xAB, 0xCD, 0xEF, 0, 2, 0x12, 0x34},
       {0x89, 0xAB, 0xCD, 0xEF, 0, 2, 0x12, 0x34, 0x89, 0xAB, 0xCD, 0xED, 0, 1, 0x12, 0x33},
       {0x89, 0xAB, 0xCD, 0xEF, 0, 2, 0x12, 0x34, 0x7E, 0xFF, 0xFF, 0x7B},
       first,
       second},
  };
  for (const Case& one : cases) {
    const auto put = [&](GFile* file) { gf_put_adr(file, &first); };
    const auto put_two = [&](GFile* file) { gf_put_adr_2(file, &first, &second); };
    EXPECT_EQ(written(kVariable, put, one.mode), one.one) << one.mode;
    EXPECT_EQ(written(kFixed, put_two, one.mode), one.two_fixed) << one.mode;
    EXPECT_EQ(written(kVariable, put_two, one.mode), one.two_variable) << one.mode;
    for (const uint32_t version : {kFixed, kVariable}) {
      gadr a = {0x5A5A5A5A, 0x5A5A5A5A};
      gadr b = a;
      Reader file(header(version, one.encoding), version == 0 ? one.two_fixed : one.two_variable);
      gf_get_adr_2(file, &a, &b);
      EXPECT_TRUE(a.low == one.read.low && a.high == one.read.high) << one.mode;
      EXPECT_TRUE(b.low == one.read_two.low && b.high == one.read_two.high) << one.mode;
    }
    gadr a = {0x5A5A5A5A, 0x5A5A5A5A};
    Reader file(header(kVariable, one.encoding), one.one);
    gf_get_adr(file, &a);
    EXPECT_TRUE(a.low == one.read.low && a.high == one.read.high) << one.mode;
    EXPECT_TRUE(file.at_end());
  }
  // Differences of 16-bit values are those of the unsigned numbers.
  EXPECT_EQ(written(kVariable, [](GFile* file) { gf_put_adr16_2(file, 0xFFFF, 0); }),
            (Bytes{0xFF, 0xFF, 0x81, 0x80, 0x7C}));
  Reader other_mode(kVariable, {1});
  other_mode->address_mode = 4;
  gadr a = {1, 2};
  gf_get_adr(other_mode, &a);
  gf_put_adr(other_mode, &a);
  EXPECT_EQ(a.low, 1U);
  EXPECT_EQ(gf_get_1(other_mode), 1);
}

TEST_F(StructuredFile, ReadsAllOnesAsNilBelowTheWideMode) {
  const struct {
    uint8_t encoding;
    Bytes bytes;
  } cases[] = {{2, {0xFF, 0xFF, 0}}, {66, {5, 6, 0xFF, 0xFF, 0}}, {4, {0xFF, 0xFF, 0xFF, 0xFF, 0}}};
  for (const auto& one : cases) {
    gadr a = {0, 0};
    gadr b = {0, 0};
    Reader file(header(kVariable, one.encoding), one.bytes);
    gf_get_adr_2(file, &a, &b);
    EXPECT_TRUE(a.low == 0xFFFFFFFF && a.high == 0xFFFFFFFF) << int{one.encoding};
    EXPECT_TRUE(b.low == 0xFFFFFFFF && b.high == 0xFFFFFFFF) << int{one.encoding};
  }
  gadr a = {0, 0};
  Reader segmented(header(kVariable, 66), {5, 0xFF, 0xFF});
  gf_get_adr(segmented, &a);
  EXPECT_EQ(a.high, 0xFFFFFFFFU);
  Reader single(header(kVariable), {0xFF, 0xFF, 0xFF, 0xFF});
  a = {0, 0};
  gf_get_adr(single, &a);
  EXPECT_TRUE(a.low == 0xFFFFFFFF && a.high == 0xFFFFFFFF);
}

TEST_F(StructuredFile, PadsInDescendingOrder) {
  const auto put = [](GFile* file) {
    gf_put_alignpad(file, 4);
    gf_put_1(file, 0);
    gf_put_alignpad(file, 0);
    gf_put_alignpad(file, 1);
    gf_put_alignpad(file, 4);
    gf_put_alignpad(file, 8);
  };
  const Bytes bytes = {0, 0xAD, 0xAC, 0xAB};  // up to 24, so that 8 needs nothing
  EXPECT_EQ(written(kFixed, put), bytes);
  Reader file(kFixed, bytes);
  gf_get_1(file);
  gf_get_alignpad(file, 4);
  EXPECT_TRUE(file.at_end());
  EXPECT_EQ(file->alignpad_error, 0);

  Reader wrong(kFixed, {0, 0xAC, 0xAC, 0xAC, 0x77});
  const CapturedRun run = capture([&] {
    gf_get_1(wrong);
    gf_get_alignpad(wrong, 4);
  });
  EXPECT_EQ(run.errors, "error: Error while processing \"UNKNOWN\"\n");
  EXPECT_EQ(wrong->alignpad_error, 1);
  EXPECT_EQ(gf_get_1(wrong), 0x77);  // all pads were read
}

TEST_F(StructuredFile, KeepsBytesWithoutPadding) {
  const Bytes bytes = {1, 2, 3};
  EXPECT_EQ(written(
                kFixed, [&](GFile* file) { gf_put_array_1(file, bytes.data(), 3); }, 2, 1),
            bytes);
  Reader file(header(kFixed, 4, 1), bytes);
  Bytes read(2);
  gf_skip_array_1(file, 1);
  gf_get_array_1(file, read.data(), 2);
  EXPECT_EQ(read, (Bytes{2, 3}));
}

TEST_F(StructuredFile, KeepsWordsOneByOneOrRaw) {
  const std::vector<uint32_t> words = {0x01020304, 0x05060708};
  const auto put = [&](GFile* file) {
    gf_put_1(file, 0x99);
    gf_put_array_4(file, words.data(), 0);  // not even padding
    gf_put_array_4(file, words.data(), 2);
  };
  const Bytes one_by_one = {0x99, 1, 2, 3, 4, 5, 6, 7, 8};
  const Bytes raw_big = {0x99, 0xAD, 0xAC, 0xAB, 1, 2, 3, 4, 5, 6, 7, 8};
  const Bytes raw_little = {0x99, 0xAD, 0xAC, 0xAB, 4, 3, 2, 1, 8, 7, 6, 5};
  EXPECT_EQ(written(kFixed, put), one_by_one);
  EXPECT_EQ(written(kFixed, put, 2, 1), kHostIsBig ? raw_big : raw_little);

  const Bytes* const stored[] = {&one_by_one, &raw_big, &raw_little};  // by mark
  for (uint8_t mark = 0; mark <= 2; ++mark) {
    std::vector<uint32_t> read(2);
    Reader file(header(kFixed, 4, mark), *stored[mark]);
    EXPECT_EQ(file->raw_arrays, mark);
    EXPECT_EQ(file->swapped, mark == kOtherMark ? 1 : 0);
    gf_get_1(file);
    gf_get_array_4(file, read.data(), 2);
    EXPECT_EQ(read, words) << int{mark};
    EXPECT_TRUE(file.at_end());
    Reader skipped(header(kFixed, 4, mark), *stored[mark]);
    gf_get_1(skipped);
    gf_skip_array_4(skipped, 0);
    EXPECT_EQ(gf_tell(skipped, nullptr), 21);
    gf_skip_array_4(skipped, 1);
    EXPECT_EQ(gf_get_1(skipped), mark == 2 ? 8 : 5);
    EXPECT_EQ(gf_got_error(skipped), 0);
  }
}

class MappedFile : public StructuredFile {
 protected:
  // Opens a file with three bytes and two words in it.
  GFile* open(uint8_t mark) {
    const Bytes bytes = joined({header(kFixed, 4, mark), {7, 8, 9, 0xAB}, Bytes(8, 0x11)});
    const std::string name = directory_.write("mapped", std::string(bytes.begin(), bytes.end()));
    return gf_open_for_read(nullptr, nullptr, name.c_str());
  }
  void* const nil_ = gf_get_nil_file_memory_mapping_handle();
};

TEST_F(MappedFile, LendsArraysInPlace) {
  GFile* const file = open(kHostMark);
  EXPECT_EQ(gf_can_memory_map_array(file, 1), 0);  // not yet
  void* address = nullptr;
  uint32_t size = 0;
  ASSERT_NE(gf_open_memory_mapping(file, 1, &address, &size), nil_);
  EXPECT_EQ(address, file->mapping);
  EXPECT_EQ(size, 32U);
  EXPECT_EQ(gf_can_memory_map_array(file, 1), 1);
  EXPECT_EQ(gf_can_memory_map_array(file, 4), 1);
  const uint8_t* bytes = nullptr;
  gf_get_mapped_array_1(file, &bytes, 0);
  EXPECT_EQ(bytes, nullptr);
  gf_get_mapped_array_1(file, &bytes, 3);
  ASSERT_NE(bytes, nullptr);
  EXPECT_EQ(Bytes(bytes, bytes + 3), (Bytes{7, 8, 9}));
  const uint32_t* words = nullptr;
  gf_get_mapped_array_4(file, &words, 1);
  ASSERT_NE(words, nullptr);
  EXPECT_EQ(*words, 0x11111111U);
  EXPECT_EQ(gf_tell(file, nullptr), 28);
  EXPECT_EQ(gf_got_error(file), 0);
  const CapturedRun run = capture([&] { gf_get_mapped_array_4(file, &words, 0x40000001); });
  EXPECT_EQ(words, nullptr);  // it would reach beyond the mapping
  EXPECT_EQ(gf_got_error(file), 1);
  EXPECT_EQ(file->mapping_error, 1);
  EXPECT_NE(run.errors.find("error: Error while processing \""), std::string::npos);
  gf_close(file);
}

TEST_F(MappedFile, OutlivesItsHandleUnlessAskedNotTo) {
  GFile* file = open(kHostMark);
  void* address = nullptr;
  uint32_t size = 0;
  gf_open_memory_mapping(file, 0, &address, &size);
  gf_close(file);
  EXPECT_EQ(static_cast<const uint8_t*>(address)[20], 7);
  gf_close_memory_mapping(nullptr, address, size);
  gf_close_memory_mapping(nullptr, nil_, 0);  // nothing to do
  file = open(kHostMark);
  gf_open_memory_mapping(file, 1, nullptr, nullptr);
  EXPECT_EQ(file->unmap_on_close, 1);
  gf_close_memory_mapping(file, nil_, 0);
  EXPECT_EQ(file->mapping, nil_);
  EXPECT_EQ(file->mapping_size, 0xFFFFFFFFU);
  EXPECT_EQ(file->unmap_on_close, 0);
  gf_close(file);
}

TEST_F(MappedFile, IsRefusedWhereArraysCannotBeUsedInPlace) {
  const CapturedRun run = capture([&] {
    for (const uint8_t mark : {uint8_t{0}, kOtherMark}) {
      GFile* const file = open(mark);
      gf_open_memory_mapping(file, 1, nullptr, nullptr);
      EXPECT_EQ(gf_can_memory_map_array(file, 1), 1);
      EXPECT_EQ(gf_can_memory_map_array(file, 4), 0);
      uint32_t word = 0;
      const uint32_t* words = &word;
      gf_get_mapped_array_4(file, &words, 1);
      EXPECT_EQ(words, nullptr);
      EXPECT_EQ(gf_got_error(file), 1);
      gf_close(file);
    }
    GFile* const file = open(kHostMark);
    uint8_t byte = 0;
    const uint8_t* bytes = &byte;
    gf_get_mapped_array_1(file, &bytes, 1);  // no mapping
    EXPECT_EQ(bytes, nullptr);
    gf_close(file);
  });
  const std::string once = "error: Error while processing \"" + directory_.path("mapped") + "\"\n";
  EXPECT_EQ(run.errors, once + once + once);
  EXPECT_EQ(gf_can_memory_map_array(nullptr, 3), 0);
}

TEST_F(MappedFile, NeedsAFileOpenForReadingFromItsStart) {
  const file_ptr stream = stream_of(joined({{1, 2, 3}, header(0)}));
  std::fseek(stream.get(), 3, SEEK_SET);
  GFile inside;
  ASSERT_NE(gf_open_for_read(&inside, stream.get(), nullptr), nullptr);
  void* address = nullptr;
  uint32_t size = 0;
  EXPECT_EQ(gf_open_memory_mapping(&inside, 1, &address, &size), nil_);
  EXPECT_EQ(address, nil_);
  EXPECT_EQ(size, 0xFFFFFFFFU);
  EXPECT_EQ(inside.unmap_on_close, 0);
  inside.mapping = &inside;  // as with a mapping of the file around it
  inside.raw_arrays = 1;
  inside.swapped = 0;
  EXPECT_EQ(gf_can_memory_map_array(&inside, 1), 1);
  EXPECT_EQ(gf_can_memory_map_array(&inside, 4), 0);
  const CapturedRun run = capture([&] { EXPECT_EQ(gf_can_memory_map_array(&inside, 2), 0); });
  EXPECT_EQ(run.errors, "warning: GFile: [gf_can_map_hd_storage]: invalid array element size\n");
  inside.mapping = nil_;
  gf_close(&inside);
  EXPECT_EQ(gf_open_memory_mapping(&inside, 1, nullptr, nullptr), nil_);  // no stream

  GFile writing;
  const file_ptr output(std::tmpfile());
  gf_open_for_write(&writing, output.get(), nullptr, 7, 0, 2, 0, 0);
  std::fflush(output.get());
  EXPECT_EQ(gf_open_memory_mapping(&writing, 1, nullptr, nullptr), nil_);
  gf_close(&writing);
}

TEST_F(StructuredFile, ReportsTheFirstErrorOnly) {
  const file_ptr stream(std::tmpfile());
  GFile file;
  gf_open_for_write(&file, stream.get(), "some file", 7, 0, 2, 0, 0);
  const CapturedRun run = capture([&] {
    gf_put_uc(&file, 0xFFFFFFFF, 0xFFFFFFFF);
    gf_put_sc(&file, -1, -1);
    EXPECT_EQ(gf_got_error(&file), 0);
    gf_put_uc(&file, 1, 2);
    EXPECT_EQ(file.constval_error, 1);
    file.constval_error = 0;
    gf_put_sc(&file, 1, -1);
    EXPECT_EQ(file.constval_error, 1);
    gf_set_descriptor_error(&file);
    EXPECT_EQ(file.descriptor_error, 1);
    gf_seek(&file, -21);
  });
  EXPECT_EQ(run.errors, "error: Error while processing \"some file\"\n");
  EXPECT_EQ(gf_tell(&file, nullptr), 20);  // nothing was written
  gf_close(&file);
}

TEST_F(StructuredFile, AddsTheReasonWhereTheSystemRefuses) {
  const file_ptr stream = stream_of(header(0));
  GFile file;
  gf_open_for_read(&file, stream.get(), nullptr);
  CapturedRun run = capture([&] { gf_seek(&file, -1); });
  EXPECT_EQ(run.errors, "fatal: Error while processing \"UNKNOWN\": Invalid argument\n");
  EXPECT_EQ(gf_got_error(&file), 0);  // none of the flags, and the stream goes on
  gf_close(&file);

  const std::string name = directory_.write("file", std::string_view("\x7FQVR\0\0\0\1", 8));
  const file_ptr read_only(std::fopen(name.c_str(), "r"));
  GFile refused{};
  EXPECT_EQ(gf_open_for_write(&refused, read_only.get(), nullptr, 7, 0, 2, 0, 0), nullptr);
  refused.fp = read_only.get();
  EXPECT_EQ(gf_got_error(&refused), 1);  // by the stream's own state

  run = capture([] { gf_close(gf_open_for_write(nullptr, nullptr, "/dev/full", 7, 0, 2, 0, 0)); });
  EXPECT_EQ(run.errors, "fatal: Error while processing \"/dev/full\": No space left on device\n");
}

TEST_F(StructuredFile, KnowsTheEndOfItsOwnStreamOnly) {
  Reader file(kFixed, {});
  CapturedRun run = capture([&] { EXPECT_EQ(gf_is_eof(file), 0); });
  EXPECT_EQ(run.errors, "warning: [gf_check_eof]: fp==unowned\n");
  gf_close(file);
  run = capture([&] { EXPECT_EQ(gf_is_eof(file), 0); });
  EXPECT_EQ(run.errors, "warning: [gf_check_eof]: fp==NULL\n");
}

}  // namespace
}  // namespace kelvane
