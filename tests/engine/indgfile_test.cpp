#include "indgfile.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstring>
#include <string>
#include <tuple>

#include "engine_steps.h"
#include "indgen_memory.h"
#include "temporary_directory.h"

namespace kelvane {

// An address in a table: the low word and the high one.
static void from_text(const std::string& text, gadr* address) {
  const size_t bar = text.find('/');
  *address = {static_cast<uint32_t>(std::stoul(text.substr(0, bar), nullptr, 16)),
              static_cast<uint32_t>(std::stoul(text.substr(bar + 1), nullptr, 16))};
}

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
    folder_.write("written", text_of(joined({start, rest})));
    return reopen();
  }
  std::string error_line() const { return "error: Error while processing \"" + name_ + "\"\n"; }

  TemporaryDirectory folder_;
  std::string name_ = folder_.path("written");
};

// ---- The table: values there and back, and steps with the file at hand.

class StructuredFileTable : public StructuredFile {
 protected:
  // What is stored and what is read back, in a file whose handle has this address mode.
  template <typename Put, typename Get>
  std::string there_and_back(uint32_t file_version, int32_t mode, Put put, Get get) {
    const Bytes stored = written(file_version, 2, [&](GFile* file) {
      file->address_mode = mode;
      put(file);
    });
    GFile* const file = reopen();
    file->address_mode = mode;
    const std::string read = get(file);
    EXPECT_EQ(gf_tell(file, nullptr), static_cast<int32_t>(kHeaderSize + stored.size()));
    gf_close(file);
    return hex_of(stored) + ";" + read;
  }

  // A value, or more of them, by their pair of operations.
  template <typename... T>
  Operation values(const char* name, void (*put)(GFile*, T...), void (*get)(GFile*, T*...)) {
    return {name, [=, this](uint32_t file_version, T... value) {
              return there_and_back(
                  file_version, 2, [=](GFile* file) { put(file, value...); },
                  [=](GFile* file) {
                    std::tuple<T...> read;
                    const auto take = [&](T&... item) {
                      get(file, &item...);
                      return separated({std::to_string(item)...});
                    };
                    return std::apply(take, read);
                  });
            }};
  }

  template <typename T>
  Operation value(const char* name, void (*put)(GFile*, T), T (*get)(GFile*)) {
    return {name, [=, this](uint32_t file_version, T number) {
              return there_and_back(
                  file_version, 2, [=](GFile* file) { put(file, number); },
                  [=](GFile* file) { return std::to_string(get(file)); });
            }};
  }

  // Addresses, which are read over a prior value.
  template <typename... Address>
  Operation addresses(const char* name, void (*put)(GFile*, const Address*...),
                      void (*get)(GFile*, Address*...)) {
    return {name, [=, this](uint32_t file_version, int32_t mode, Address... address) {
              return there_and_back(
                  file_version, mode, [=](GFile* file) { put(file, &address...); },
                  [=](GFile* file) {
                    const auto take = [=](Address... read) {
                      get(file, &read...);
                      return separated({in_hex(read.low) + "/" + in_hex(read.high)...});
                    };
                    return take(((void)address, gadr{0x33333333, 0x44444444})...);
                  });
            }};
  }

  // Opens the mapping and gives its size, or `nil`.
  std::string map(uint8_t unmap_on_close) {
    void* address = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(gf_open_memory_mapping(file_, unmap_on_close, &address, &size), file_->mapping);
    EXPECT_EQ(address, file_->mapping);
    EXPECT_EQ(size, file_->mapping_size);
    return mapping();
  }
  std::string mapping() const {
    const bool is_nil = file_->mapping == gf_get_nil_file_memory_mapping_handle();
    EXPECT_EQ(is_nil, file_->mapping_size == UINT32_MAX);
    return is_nil ? "nil" : std::to_string(file_->mapping_size);
  }

  // An array in the mapping, by the operation for its elements.
  template <typename T>
  std::string mapped(void (*get)(GFile*, const T**, uint32_t), uint32_t count) {
    const T unset = 0;
    const T* array = &unset;
    get(file_, &array, count);
    if (array == nullptr || array == &unset) {
      return array == nullptr ? "null" : "unset";
    }
    const auto* const bytes = reinterpret_cast<const uint8_t*>(array);
    return hex_of({bytes, bytes + count * sizeof(T)});
  }

  template <typename T>
  Operation reading(const char* name, T (*get)(GFile*)) {
    return {name, [=, this](const char*) { return get(file_); }};
  }

  template <typename... T>
  Operation doing(const char* name, void (*act)(GFile*, T...)) {
    return {name, [=, this](T... argument) {
              act(file_, argument...);
              return "";
            }};
  }

  const char* open_at_hand(const Bytes& contents) {
    file_ = open(contents);
    return file_ == nullptr ? "null" : "";
  }

  std::string close_at_hand() {
    const bool writing = file_->writing != 0;
    gf_close(file_);
    return writing ? hex_of(bytes_of(folder_.read("written").substr(kHeaderSize))) : "";
  }

  struct StickyError {
    void (*set)(GFile*);
    uint8_t GFile::*flag;
  };
  static StickyError sticky_error(const std::string& name) {
    static const std::map<std::string, StickyError> errors = {
        {"descriptor", {gf_set_descriptor_error, &GFile::descriptor_error}},
        {"constval", {gf_set_constval_error, &GFile::constval_error}},
        {"alignpad", {gf_set_alignpad_error, &GFile::alignpad_error}},
        {"mapping", {gf_set_file_memory_mapping_error, &GFile::mapping_error}}};
    return errors.at(name);
  }
  void set_error(const std::string& name) const { sticky_error(name).set(file_); }
  int32_t error(const std::string& name) const { return file_->*sticky_error(name).flag; }

  GFile* file_ = nullptr;
};

TEST_F(StructuredFileTable, TellsWhatIsStoredAndRead) {
  using Text = const char*;
  const auto string = [this](uint32_t file_version, Text value) {
    return there_and_back(
        file_version, 2, [=](GFile* file) { gf_put_str(file, value); },
        [](GFile* file) { return taken(gf_get_str(file)); });
  };
  // clang-format off
  go_through(KELVANE_TABLES "indgfile.table", {
      value("1", gf_put_1, gf_get_1), value("2", gf_put_2, gf_get_2), value("4", gf_put_4, gf_get_4),
      value("8", gf_put_8, gf_get_8), value("un", gf_put_un, gf_get_un), value("sn", gf_put_sn, gf_get_sn),
      value("iss", gf_put_iss, gf_get_iss), value("ind", gf_put_ind, gf_get_ind),
      value("adr16", gf_put_adr16, gf_get_adr16), value("adr32", gf_put_adr32, gf_get_adr32),
      values("iss_2", gf_put_iss_2, gf_get_iss_2), values("ind_2", gf_put_ind_2, gf_get_ind_2),
      values("iss_3", gf_put_iss_3, gf_get_iss_3), values("ind_3", gf_put_ind_3, gf_get_ind_3),
      values("adr16_2", gf_put_adr16_2, gf_get_adr16_2), values("adr32_2", gf_put_adr32_2, gf_get_adr32_2),
      {"str", string},
      addresses("adr", gf_put_adr, gf_get_adr), addresses("adr_2", gf_put_adr_2, gf_get_adr_2),
      addresses("adr64", gf_put_adr64, gf_get_adr64), addresses("adr64_2", gf_put_adr64_2, gf_get_adr64_2),
      {"read", [this](size_t offset, uint8_t value, Data rest) { return open_at_hand(joined({header({{offset, value}}), rest.bytes})); }},
      {"read_raw", [this](Data rest) { return open_at_hand(joined({header({{18, kLittleHost ? uint8_t{2} : uint8_t{1}}}), rest.bytes})); }},
      {"map", [this](uint8_t unmap_on_close) { return map(unmap_on_close); }},
      {"mapping", [this](Text) { return mapping(); }},
      {"unmap", [this](Text) { gf_close_memory_mapping(file_, gf_get_nil_file_memory_mapping_handle(), 0); return ""; }},
      {"unmap_on_close", [this](Text) { return file_->unmap_on_close; }},
      {"can_map", [this](uint32_t size) { return gf_can_memory_map_array(file_, size); }},
      {"mapped_1", [this](uint32_t count) { return mapped(gf_get_mapped_array_1, count); }},
      {"mapped_4", [this](uint32_t count) { return mapped(gf_get_mapped_array_4, count); }},
      {"read_all", [this](Data contents) { return open_at_hand(contents.bytes); }},
      {"write", [this](uint32_t file_version, int32_t mode, uint8_t raw) { file_ = gf_open_for_write(nullptr, nullptr, name_.c_str(), 9, file_version, mode, 0, raw); return ""; }},
      {"close", [this](Text) { return close_at_hand(); }},
      {"error", [this](const std::string& name) { return error(name); }},
      {"format_version", [this](Text) { return file_->format_version; }},
      {"got_error", [this](Text) { return gf_got_error(file_); }},
      doing("put_uc", gf_put_uc), doing("put_sc", gf_put_sc), doing("put_1", gf_put_1),
      doing("alignpad", gf_put_alignpad), doing("get_alignpad", gf_get_alignpad),
      reading("get_un", gf_get_un), reading("get_sn", gf_get_sn), reading("get_iss", gf_get_iss),
      reading("get_1", gf_get_1), reading("get_4", gf_get_4), reading("get_str", gf_get_str),
      {"set_error", [this](const std::string& name) { set_error(name); return ""; }}},
      nullptr, folder_.name() + "/");
  // clang-format on
}

TEST_F(StructuredFile, ReadsAStringInPieces) {
  const std::string long_string(10000, 'k');
  written(0, 2, [&](GFile* file) { gf_put_str(file, long_string.c_str()); });
  GFile* const file = reopen();
  EXPECT_EQ(gen_ptr<char>(gf_get_str(file)).get(), long_string);
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

TEST_F(StructuredFile, HasNoDescriptors) {
  GFile handle{};
  handle.file_type = 77;
  folder_.write("written", text_of(header({{17, 1}})));
  const CapturedRun read =
      capture([&] { EXPECT_EQ(gf_open_for_read(&handle, nullptr, name_.c_str()), nullptr); });
  EXPECT_EQ(read.errors, "error: GFile desciptors not supported\n");
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

TEST_F(StructuredFile, IsNullWhereNothingCanBeOpened) {
  EXPECT_EQ(capture([this] {
              EXPECT_EQ(gf_open_for_read(nullptr, nullptr, folder_.path("missing").c_str()),
                        nullptr);
              EXPECT_EQ(gf_open_for_write(nullptr, nullptr, folder_.name().c_str(), 7, 0, 2, 0, 0),
                        nullptr);
            }).errors,
            "");
}

// ---- Errors.

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

TEST_F(StructuredFile, KeepsAMappingBeyondItsCloseUnlessAsked) {
  GFile* const file = open(header(), bytes_of("abcd"));
  uint32_t size = 0;
  void* mapping = nullptr;
  gf_open_memory_mapping(file, 0, &mapping, &size);
  gf_close(file);
  EXPECT_EQ(static_cast<const char*>(mapping)[20], 'a');
  gf_close_memory_mapping(nullptr, mapping, size);
  gf_close_memory_mapping(nullptr, gf_get_nil_file_memory_mapping_handle(), 0);  // nothing to do
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
