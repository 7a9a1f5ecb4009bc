// Memory mode through the real program: what it says of images, in either byte order.
#include <gtest/gtest.h>

#include "image_builder.h"
#include "operation_table.h"
#include "run_program.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

TEST(MemoryModeOfTheProgram, SaysWhatTheTableTells) {
  const TemporaryDirectory directory;
  directory.write("words", ".data\n");
  std::vector<ImageSection> sections[2];
  const auto add = [&](const std::string& file, const ImageSection& section) {
    sections[file == "new" ? 1 : 0].push_back(section);
    return "";
  };
  const auto write_images = [&](ByteOrder order) {
    for (const bool is_new : {false, true}) {
      Image image;
      image.order = order;
      image.sections = sections[is_new ? 1 : 0];
      image.symbols = {crt1_symbol(0x1000, image.sections[0].name)};
      directory.write(is_new ? "new" : "old", text_of(build_image(image)));
    }
  };
  // The images in one byte order, compared at debug level 1.
  const auto run = [&](ByteOrder order, const std::string& option, const std::string& argument) {
    write_images(order);
    std::vector<std::string> command = {kelvane_program(), "-ram", "-d", "1", "old", "new"};
    if (!option.empty()) {
      command.insert(command.begin() + 1, {option, argument});
    }
    return run_program(command, directory.name());
  };
  // What kelmake says of them; it has verified its patch then.
  const auto make = [&](ByteOrder order, const std::string& option, const std::string& argument) {
    write_images(order);
    std::vector<std::string> command = {kelmake_program(), "--ram", "old", "new", "-o", "patch"};
    if (!option.empty()) {
      command.insert(command.begin() + 1, {option, argument});
    }
    return run_program(command, directory.name());
  };
  using Text = const std::string&;
  // clang-format off
  check_table({
      {"plain", [&](Text file, const char* name, uint32_t addr, Text text, uint32_t flags) {
        return add(file, {name, elf32::SHT_PROGBITS, flags, addr, bytes_of(text)});
      }},
      {"empty", [&](Text file, const char* name, uint32_t addr, uint32_t size) {
        return add(file, {name, elf32::SHT_NOBITS, elf32::SHF_ALLOC, addr, {}, size});
      }},
      {"made", [&](Text option, Text argument) {
        const ProgramResult other = make(ByteOrder::kBig, option, argument);
        const ProgramResult result = make(ByteOrder::kLittle, option, argument);
        EXPECT_EQ(other.errors, result.errors);
        std::vector<std::string> command = {kelpatch_program(), "verify", "--ram"};
        if (option == "--exclude" || option == "--alias") {
          command.insert(command.end(), {option, argument});
        }
        std::fputs(result.errors.c_str(), stderr);
        EXPECT_EQ(result.output.find("\npatch: ") != std::string::npos, result.status == 0);
        if (result.status == 0) {
          command.insert(command.end(), {"old", "new", "patch"});
          EXPECT_EQ(run_program(command, directory.name()).output, "the patch is right\n");
        }
        sections[0].clear();
        sections[1].clear();
        return result.status;
      }},
      // Its words without the patch's size.
      {"compared", [&](Text option, Text argument) {
        const ProgramResult result = run(ByteOrder::kLittle, option, argument);
        const ProgramResult other = run(ByteOrder::kBig, option, argument);
        const std::string words = result.errors.substr(0, result.errors.find("Patch size"));
        EXPECT_EQ(other.errors.substr(0, other.errors.find("Patch size")), words);
        EXPECT_EQ(other.status, result.status);
        std::fputs(words.c_str(), stderr);
        sections[0].clear();
        sections[1].clear();
        return result.status;
      }},
  }, KELVANE_TABLES "memory_mode.table");
  // clang-format on
}

}  // namespace
}  // namespace kelvane
