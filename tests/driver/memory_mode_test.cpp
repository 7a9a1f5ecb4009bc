// Memory mode through the real program: what it says of images, in either byte order.
#include <gtest/gtest.h>

#include "image_builder.h"
#include "run_program.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

using Sections = std::vector<ImageSection>;

ImageSection plain(const char* name, uint32_t addr, const char* text, uint32_t flags = 2) {
  return {name, elf32::SHT_PROGBITS, flags, addr, bytes_of(text)};
}

ImageSection empty(const char* name, uint32_t addr, uint32_t size) {
  return {name, elf32::SHT_NOBITS, elf32::SHF_ALLOC, addr, {}, size};
}

struct Case {
  const char* why;
  std::vector<std::string> options;
  Sections old_sections;
  Sections new_sections;
  const char* words;  // behind the program's name, at debug level 1, without the patch's size
  int status;
};

const Case kCases[] = {
    {"names are those in memory, whatever is stored where",
     {},
     {plain(".romdata", 0x9000, "data"), empty(".data", 0x2000, 4), plain(".ROMfast", 0x3000, "x"),
      plain(".cromt_slow", 0x9100,
            "\x0F"
            "abcd"),
      empty(".text_slow", 0x4000, 4), plain(".debug_info", 0, "old", 0),
      plain(".patch_x", 0x100, "p")},
     {plain(".data", 0x2000, "date"), plain("fast", 0x3000, "x"),
      plain(".text_slow", 0x4000, "abcd"), plain(".debug_info", 0, "another", 0)},
     "Skipping section '.patch_x' in file 'old'\n"
     "Adding patch for section '.data'\n"
     "Adding patch for section 'fast'\n"
     "Uncompressing section '.text_slow' from file 'old'\n"
     "Adding patch for section '.text_slow'\n",
     0},
    {"exclusions hold for the copy in ROM too",
     {"-exclude", "words"},
     {plain(".text", 0x1000, "t"), plain(".ROM.data", 0x9000, "data")},
     {plain(".text", 0x1000, "t"), plain(".ROM.data", 0x9000, "date")},
     "Skipping section '.ROM.data' in file 'old' because of exclusion '.data'\n"
     "Skipping section '.ROM.data' in file 'new' because of exclusion '.data'\n"
     "Adding patch for section '.text'\n",
     0},
    {"aliases bring addresses together",
     {"-alias", "80000000:20000000"},
     {plain(".text", 0xA0001000, "text")},
     {plain(".text", 0x80001000, "text")},
     "Mapping address 0xa0001000 to 0x80001000\n"
     "Mapping address 0x80001000 to 0x80001000\n"
     "Adding patch for section '.text'\n",
     0},
    {"a compressed section behind its own has the wrong size",
     {},
     {empty(".text_slow", 0x4000, 8), plain(".cromt_slow", 0x9100,
                                            "\xF0"
                                            "ab\xEE\xF1")},
     {plain(".text_slow", 0x4000, "abcdabcd")},
     "Uncompressing section '.text_slow' from file 'old'\n"
     "kelvane: fatal: compressed section '.text_slow' in file 'old' is damaged\n",
     1},
    {"every section needs a partner",
     {},
     {plain(".text", 0x1000, "t")},
     {plain(".text", 0x1000, "t"), plain(".more", 0x2000, "")},
     "Adding patch for section '.text'\n"
     "kelvane: fatal: could not find section '.more' in first file\n",
     1},
};

TEST(MemoryModeOfTheProgram, SaysWhatItMakesOfImages) {
  const TemporaryDirectory directory;
  directory.write("words", ".data\n");
  for (const Case& row : kCases) {
    for (const ByteOrder order : {ByteOrder::kLittle, ByteOrder::kBig}) {
      SCOPED_TRACE(row.why);
      for (const bool is_new : {false, true}) {
        Image image;
        image.order = order;
        image.sections = is_new ? row.new_sections : row.old_sections;
        image.symbols = {crt1_symbol(0x1000, image.sections[0].name)};
        directory.write(is_new ? "new" : "old", text_of(build_image(image)));
      }
      std::vector<std::string> command = {kelvane_program(), "-ram", "-d", "1", "old", "new"};
      command.insert(command.begin() + 1, row.options.begin(), row.options.end());
      const ProgramResult result = run_program(command, directory.name());
      EXPECT_EQ(result.status, row.status);
      EXPECT_EQ(result.errors.substr(0, result.errors.find("Patch size")), row.words);
    }
  }
}

}  // namespace
}  // namespace kelvane
