#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>

#include "memory_pair.h"
#include "round_trip.h"
#include "run_program.h"
#include "temporary_directory.h"

// The ledger of patch sizes: a change that makes patches larger or smaller shows in its difference.
// scripts/update-sizes rewrites it. The images are made here, so no compiler has a say in them.
namespace kelvane {
namespace {

constexpr char kLedger[] = KELVANE_GOLDEN_FOLDER "/patch_sizes.csv";
constexpr uint32_t kCodeBase = 0x20000000;

// A program of functions in code, with a table of their addresses behind the code and then text.
struct Program {
  std::vector<Bytes> functions;
  Bytes text;
};

Bytes linked(const Program& program, bool big_endian) {
  Bytes image;
  std::vector<uint32_t> addresses;
  for (const Bytes& function : program.functions) {
    addresses.push_back(kCodeBase + static_cast<uint32_t>(image.size()));
    image.insert(image.end(), function.begin(), function.end());
  }
  for (size_t i = 0; i < 4 * addresses.size(); ++i) {
    append_word(image, addresses[i * 7 % addresses.size()], big_endian);
  }
  image.insert(image.end(), program.text.begin(), program.text.end());
  return image;
}

Program some_program() {
  Random random(1);
  Program program;
  for (int i = 0; i < 120; ++i) {
    program.functions.push_back(code_like(4 * (20 + random.below(200)), random));
  }
  program.text = text_like(6000, random);
  return program;
}

// The program and what `change` makes of it.
ImagePair revised(const std::function<void(Program&, Random&)>& change, bool big_endian = false) {
  Program program = some_program();
  ImagePair pair;
  pair.old_image = linked(program, big_endian);
  Random random(2);
  change(program, random);
  pair.new_image = linked(program, big_endian);
  return pair;
}

void edit_functions(Program& program, Random& random) {
  for (size_t i = 5; i < program.functions.size(); i += 20) {
    for (int edit = 0; edit < 4; ++edit) {
      replace_piece(program.functions[i], random);
    }
  }
}

void grow_functions(Program& program, Random& random) {
  for (size_t i = 3; i < program.functions.size(); i += 40) {
    const Bytes code = code_like(4 * (1 + random.below(20)), random);
    program.functions[i].insert(program.functions[i].begin() + 40, code.begin(), code.end());
  }
}

void drop_functions(Program& program, Random&) {
  program.functions.erase(program.functions.begin() + 60, program.functions.begin() + 63);
}

void swap_functions(Program& program, Random&) {
  std::swap(program.functions[20], program.functions[90]);
}

void clear_buffers(Program& program, Random&) {
  for (size_t i = 10; i < program.functions.size(); i += 30) {
    program.functions[i].assign(program.functions[i].size(), 0xFF);
  }
}

void rewrite_text(Program& program, Random& random) {
  program.text = text_like(7000, random);
}

ImagePair unlike_images() {
  Random random(3);
  return {code_like(20000, random), text_like(15000, random)};
}

struct LedgerPair {
  const char* name;
  ImagePair images;
  bool big_endian = false;
};

std::vector<LedgerPair> ledger_pairs() {
  const ImagePair equal = revised([](Program&, Random&) {});
  return {{"equal", equal},
          {"edited", revised(edit_functions)},
          {"grown", revised(grow_functions)},
          {"grown_big_endian", revised(grow_functions, true), true},
          {"shrunk", revised(drop_functions)},
          {"swapped", revised(swap_functions)},
          {"cleared", revised(clear_buffers)},
          {"new_text", revised(rewrite_text)},
          {"unlike", unlike_images()}};
}

std::vector<PatchOptions> ledger_options() {
  PatchOptions version0;
  version0.patch_version = 0;
  version0.fill = false;
  version0.compression = false;
  PatchOptions plain = version0;
  plain.patch_version = 1;
  PatchOptions usual;
  PatchOptions increments = usual;
  increments.increments = true;
  PatchOptions eager = increments;
  eager.min_percent = 0;
  eager.min_length = 8;
  PatchOptions large_blocks = increments;
  large_blocks.blocksize = 32;
  large_blocks.max_scan = 10000;
  return {version0, plain, usual, increments, eager, large_blocks};
}

// Linked images in memory mode, each patch verified on the memory of the target.
std::string memory_ledger() {
  struct MemoryLedgerPair {
    const char* name;
    ProgramChange change;
    ByteOrder order;
    bool alike = false;  // functions of one size
  };
  const MemoryLedgerPair pairs[] = {
      {"memory_moved", ProgramChange::moved, ByteOrder::little},
      {"memory_exchanged_alike", ProgramChange::exchanged, ByteOrder::little, true},
      {"memory_exchanged", ProgramChange::exchanged, ByteOrder::little},
      {"memory_rotated_alike_big_endian", ProgramChange::rotated, ByteOrder::big, true},
      {"memory_inserted", ProgramChange::inserted, ByteOrder::little},
      {"memory_mixed_big_endian", ProgramChange::mixed, ByteOrder::big},
  };
  const std::vector<std::string> options[] = {
      {}, {"-inc"}, {"-memmove"}, {"-memmove_block"}, {"-inc", "-memmove", "-memmove_block"}};
  const TemporaryDirectory directory;
  std::string text;
  for (const MemoryLedgerPair& row : pairs) {
    Random random(12);
    const MemoryPair pair =
        make_memory_pair(row.change, row.order, {80, 600, row.alike, 4096}, random);
    directory.write("old.elf", text_of(build_image(pair.old_image.image)));
    directory.write("new.elf", text_of(build_image(pair.new_image.image)));
    for (const std::vector<std::string>& more : options) {
      std::vector<std::string> command = {kelvane_program(), "-ram", "-b", "8", "-s", "5000"};
      command.insert(command.end(), more.begin(), more.end());
      std::string words;
      for (size_t i = 1; i < command.size(); ++i) {
        words += (words.empty() ? "" : " ") + command[i];
      }
      command.insert(command.end(), {"-o", "a.patch", "old.elf", "new.elf"});
      EXPECT_EQ(run_program(command, directory.name()).status, 0) << row.name << " " << words;
      const ProgramResult verified =
          run_program({kelpatch_program(), "verify", "--ram", "old.elf", "new.elf", "a.patch"},
                      directory.name());
      EXPECT_EQ(verified.errors, "") << row.name << " " << words;
      text += std::string(row.name) + "," + words + "," +
              std::to_string(directory.read("a.patch").size()) + "\n";
    }
  }
  return text;
}

std::string ledger_now() {
  std::string text = "pair,options,bytes\n";
  for (const LedgerPair& pair : ledger_pairs()) {
    for (PatchOptions options : ledger_options()) {
      options.big_endian = pair.big_endian;
      const MadePatch made = make_patch_file(pair.images, options);
      EXPECT_EQ(fault_in_patch(made.file, pair.images, options), std::nullopt) << pair.name;
      std::string words;
      for (const std::string& argument : arguments_for(options)) {
        words += (words.empty() ? "" : " ") + argument;
      }
      text += std::string(pair.name) + "," + words + "," + std::to_string(made.file.size()) + "\n";
    }
  }
  return text + memory_ledger();
}

TEST(PatchSizes, AreThoseOfTheLedger) {
  const std::string now = ledger_now();
  if (std::getenv("KELVANE_UPDATE_SIZES") != nullptr) {
    std::ofstream(kLedger, std::ios::binary) << now;
  }
  EXPECT_EQ(read_whole_file(kLedger), now);
}

}  // namespace
}  // namespace kelvane
