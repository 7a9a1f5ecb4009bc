#include "indgfile.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "captured_run.h"
#include "indgen_memory.h"
#include "structured_file.h"

namespace kelvane {
namespace {

using Bytes = std::vector<uint8_t>;

TEST_F(StructuredFile, BeginsWithTheseTwentyBytes) {
  const file_ptr stream(std::tmpfile());
  GFile file{};
  ASSERT_EQ(gf_open_for_write(&file, stream.get(), nullptr, 7, 0, 2, 0, 0), &file);
  EXPECT_EQ(file.base, 0);
  EXPECT_EQ(file.name, nullptr);
  EXPECT_EQ(file.owns_file, 0);
  EXPECT_EQ(file.writing, 1);
  EXPECT_EQ(file.format_version, 1);
  EXPECT_EQ(file.file_type, 7U);
  EXPECT_EQ(file.mapping, gf_get_nil_file_memory_mapping_handle());
  EXPECT_EQ(file.mapping_size, UINT32_MAX);
  EXPECT_EQ(gf_close(&file), 1);
  EXPECT_EQ(file.fp, nullptr);
  // The stream is the caller's and stays usable.
  ASSERT_EQ(std::fputc('x', stream.get()), 'x');
  std::rewind(stream.get());
  std::array<uint8_t, 22> bytes{};
  ASSERT_EQ(std::fread(bytes.data(), 1, bytes.size(), stream.get()), 21U);
  EXPECT_EQ(
      Bytes(bytes.begin(), bytes.end()),
      (Bytes{0x7F, 0x51, 0x56, 0x52, 0, 0, 0, 1, 0, 0, 0, 7, 0, 0, 0, 0, 4, 0, 0, 0, 'x', 0}));
}

TEST_F(StructuredFile, LiesInsideAnotherFile) {
  const file_ptr stream(std::tmpfile());
  std::fseek(stream.get(), 100, SEEK_SET);
  GFile file{};
  ASSERT_NE(gf_open_for_write(&file, stream.get(), "inner", 7, 0, 3, 0, 0), nullptr);
  EXPECT_EQ(file.base, 100);
  EXPECT_STREQ(file.name, "inner");
  int32_t position = 0;
  EXPECT_EQ(gf_tell(&file, &position), 20);
  EXPECT_EQ(position, 20);
  gf_put_1(&file, 0xAA);
  EXPECT_EQ(gf_seek(&file, 20), 0);
  EXPECT_EQ(std::ftell(stream.get()), 120);
  gf_close(&file);
  std::fseek(stream.get(), 100, SEEK_SET);
  ASSERT_NE(gf_open_for_read(&file, stream.get(), nullptr), nullptr);
  EXPECT_EQ(file.base, 100);
  EXPECT_EQ(file.address_mode, 3);
  EXPECT_EQ(gf_get_1(&file), 0xAA);
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
  EXPECT_STREQ(file->name, folder.path("written").c_str());
  EXPECT_EQ(gf_is_eof(file), 0);
  EXPECT_EQ(gf_get_1(file), 0);
  EXPECT_EQ(gf_is_eof(file), 1);
  EXPECT_EQ(gf_close(file), 1);
}

TEST_F(StructuredFile, RefusesAHeaderThatItCannotReadWithoutAWord) {
  const CapturedRun run = capture([this] {
    const auto refused_with = [this](size_t offset, uint8_t value) {
      Bytes start = header();
      start[offset] = value;
      GFile* const file = open(start);
      EXPECT_EQ(file, nullptr) << "offset " << offset;
    };
    refused_with(0, 0x7E);
    refused_with(3, 'r');
    refused_with(7, 2);
    refused_with(19, 1);
    Bytes both = header();
    both[17] = 1;
    both[19] = 1;
    EXPECT_EQ(open(both), nullptr);
    Bytes cut = header();
    cut.pop_back();
    EXPECT_EQ(open(cut), nullptr);
    EXPECT_EQ(open({}), nullptr);
    EXPECT_EQ(gf_open_for_read(nullptr, nullptr, folder.path("missing").c_str()), nullptr);
    EXPECT_EQ(gf_open_for_write(nullptr, nullptr, folder.name().c_str(), 7, 0, 2, 0, 0), nullptr);
  });
  EXPECT_EQ(run.errors, "");
  Bytes negative = header();
  negative[4] = 0x80;  // below 1 as a signed number
  GFile* const file = open(negative);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->format_version, INT32_MIN + 1);
  gf_close(file);
}

TEST_F(StructuredFile, HasNoDescriptors) {
  Bytes start = header();
  start[17] = 1;
  GFile handle{};
  handle.file_type = 77;
  const CapturedRun read = capture([&] {
    EXPECT_EQ(open(start), nullptr);
    EXPECT_EQ(gf_open_for_read(&handle, nullptr, folder.path("written").c_str()), nullptr);
  });
  EXPECT_EQ(read.errors,
            "error: GFile desciptors not supported\nerror: GFile desciptors not supported\n");
  EXPECT_EQ(handle.file_type, 0U);  // cleared
  EXPECT_EQ(handle.fp, nullptr);
  const CapturedRun write = capture([&] {
    ASSERT_NE(gf_open_for_write(&handle, nullptr, folder.path("d").c_str(), 9, 0, 2, 1, 0),
              nullptr);
    EXPECT_EQ(handle.descriptors, 0);
    gf_close(&handle);
  });
  EXPECT_EQ(write.errors, "warning: GFile desciptors not supported\n");
  const Bytes expected = header();
  EXPECT_EQ(folder.read("d"), std::string(expected.begin(), expected.end()));
}

TEST_F(StructuredFile, ReportsOnlyTheFirstErrorOfAHandle) {
  const CapturedRun run = capture([this] {
    GFile* const file = open(header());
    gen_free(file->name);
    file->name = nullptr;
    gf_put_uc(file, 3, 3);
    gf_put_sc(file, -3, -3);
    EXPECT_EQ(gf_got_error(file), 0);
    gf_put_uc(file, 3, 4);
    gf_put_sc(file, -3, 3);
    EXPECT_EQ(file->constval_error, 1);
    EXPECT_EQ(gf_got_error(file), 1);
    gf_close(file);
  });
  EXPECT_EQ(run.errors, "error: Error while processing \"UNKNOWN\"\n");
}

TEST_F(StructuredFile, TellsEachStickyError) {
  const std::vector<void (*)(GFile*)> setters = {gf_set_descriptor_error, gf_set_constval_error,
                                                 gf_set_alignpad_error,
                                                 gf_set_file_memory_mapping_error};
  const std::vector<uint8_t GFile::*> flags = {&GFile::descriptor_error, &GFile::constval_error,
                                               &GFile::alignpad_error, &GFile::mapping_error};
  for (size_t i = 0; i < setters.size(); ++i) {
    GFile file{};
    const CapturedRun run = capture([&] { setters[i](&file); });
    EXPECT_EQ(run.errors, "error: Error while processing \"UNKNOWN\"\n");
    EXPECT_EQ(file.*flags[i], 1);
    EXPECT_EQ(gf_got_error(&file), 1);
  }
}

TEST_F(StructuredFile, ReportsAFailureToCloseWithItsReason) {
  GFile file{};
  const CapturedRun run = capture([&] {
    ASSERT_NE(gf_open_for_write(&file, nullptr, "/dev/full", 7, 0, 2, 0, 0), nullptr);
    EXPECT_EQ(gf_close(&file), 1);
  });
  EXPECT_EQ(run.errors, "fatal: Error while processing \"/dev/full\": No space left on device\n");
  // Without a buffer the header itself fails.
  const file_ptr full(std::fopen("/dev/full", "w"));
  std::setvbuf(full.get(), nullptr, _IONBF, 0);
  EXPECT_EQ(gf_open_for_write(nullptr, full.get(), nullptr, 7, 0, 2, 0, 0), nullptr);
}

TEST_F(StructuredFile, AnswersForTheEndOnlyOfAStreamOfItsOwn) {
  GFile file{};
  const CapturedRun run = capture([&] {
    EXPECT_EQ(gf_is_eof(&file), 0);
    file.fp = stdin;
    EXPECT_EQ(gf_is_eof(&file), 0);
  });
  EXPECT_EQ(run.errors,
            "warning: [gf_check_eof]: fp==NULL\nwarning: [gf_check_eof]: fp==unowned\n");
}

TEST_F(StructuredFile, ReportsAStreamThatRefusesToSeek) {
  const CapturedRun run = capture([this] {
    GFile* const file = open(header());
    EXPECT_EQ(gf_seek(file, -1), -1);
    gf_close(file);
  });
  EXPECT_EQ(run.errors,
            "fatal: Error while processing \"" + folder.path("written") + "\": Invalid argument\n");
  GFile pipe{};
  pipe.fp = ::popen("true", "r");
  const CapturedRun telling = capture([&] {
    int32_t position = 0;
    EXPECT_EQ(gf_tell(&pipe, &position), -1);
    EXPECT_EQ(position, -1);
    gf_skip_array_1(&pipe, 1);
    gf_put_alignpad(&pipe, 4);  // no position, no padding
  });
  EXPECT_EQ(telling.errors, "fatal: Error while processing \"UNKNOWN\": Illegal seek\n");
  ::pclose(pipe.fp);
}

TEST_F(StructuredFile, GivesArraysInTheMapping) {
  const std::vector<uint32_t> words = {0x01020304, 0x05060708};
  written(
      0, 2,
      [&](GFile* file) {
        gf_put_array_1(file, reinterpret_cast<const uint8_t*>("xyz"), 3);
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
  const CapturedRun run = capture([&] {
    gf_get_mapped_array_1(file, &bytes, 1);  // behind the end
    EXPECT_EQ(bytes, nullptr);
    EXPECT_EQ(file->mapping_error, 1);
  });
  EXPECT_EQ(run.errors, "error: Error while processing \"" + folder.path("written") + "\"\n");
  gf_close(file);
}

TEST_F(StructuredFile, HasAMappingErrorWithoutAMapping) {
  const CapturedRun run = capture([this] {
    GFile* file = open(header(), "abcd");
    const uint8_t byte = 0;
    const uint8_t* bytes = &byte;
    gf_get_mapped_array_1(file, &bytes, 1);
    EXPECT_EQ(bytes, nullptr);
    EXPECT_EQ(file->mapping_error, 1);
    gf_close(file);
    file = open(header(), "abcd");  // mapped, but without raw arrays
    gf_open_memory_mapping(file, 1, nullptr, nullptr);
    const uint32_t word = 0;
    const uint32_t* words = &word;
    gf_get_mapped_array_4(file, &words, 0);
    EXPECT_EQ(words, &word);
    EXPECT_EQ(gf_can_memory_map_array(file, 4), 0);
    gf_get_mapped_array_4(file, &words, 1);
    EXPECT_EQ(words, nullptr);
    gf_close(file);
  });
  const std::string line = "error: Error while processing \"" + folder.path("written") + "\"\n";
  EXPECT_EQ(run.errors, line + line);
}

TEST_F(StructuredFile, KeepsAMappingBeyondItsCloseUnlessAsked) {
  GFile* const file = open(header(), "abcd");
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

TEST_F(StructuredFile, MapsNothingThatIsOpenForWriting) {
  GFile file{};
  ASSERT_NE(gf_open_for_write(&file, nullptr, folder.path("w").c_str(), 9, 0, 2, 0, 1), nullptr);
  void* address = &file;
  uint32_t size = 0;
  EXPECT_EQ(gf_open_memory_mapping(&file, 1, &address, &size),
            gf_get_nil_file_memory_mapping_handle());
  EXPECT_EQ(address, gf_get_nil_file_memory_mapping_handle());
  EXPECT_EQ(size, UINT32_MAX);
  EXPECT_EQ(file.unmap_on_close, 0);
  EXPECT_EQ(gf_can_memory_map_array(&file, 1), 0);
  gf_close(&file);
}

TEST_F(StructuredFile, CanMapOnlyElementsOfOneOrFourBytes) {
  EXPECT_EQ(gf_can_memory_map_array(nullptr, 4), 0);
  GFile file{};
  file.mapping = &file;
  file.raw_arrays = 1;
  EXPECT_EQ(gf_can_memory_map_array(&file, 4), 1);
  file.base = 6;
  EXPECT_EQ(gf_can_memory_map_array(&file, 4), 0);
  EXPECT_EQ(gf_can_memory_map_array(&file, 1), 1);
  const CapturedRun run = capture([&] { EXPECT_EQ(gf_can_memory_map_array(&file, 2), 0); });
  EXPECT_EQ(run.errors, "warning: GFile: [gf_can_map_hd_storage]: invalid array element size\n");
}

}  // namespace
}  // namespace kelvane
