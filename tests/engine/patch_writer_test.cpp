#include "patch_writer.h"

#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "binshared.h"
#include "captured_run.h"
#include "debug_print.h"
#include "diffout.h"
#include "diffshared.h"
#include "engine_fixture.h"
#include "engine_settings.h"
#include "image.h"
#include "increments.h"
#include "indzip.h"
#include "patch_buffer.h"
#include "substitution.h"

namespace kelvane {
namespace {

const Bytes kImage = [] {
  Random random(5);
  return random.bytes(4096);
}();

byte_store store(uint32_t address, uint32_t size) {
  return {address, size, kImage.data() + address % 1024};
}

const patch_header kHeader = {1, 2, 3, 4, 5, 6};

TEST(PatchAsAValue, IsWhatTheEngineWritesOfTheSameCommands) {
  for (const bool memory_mode : {false, true}) {
    for (const int32_t patch_version : {0, 1}) {
      for (const bool relative : {false, true}) {
        reset_all_state();
        gen_endian_init();
        patch_commands commands;
        add_move(0x10, -4);
        add_move(0x20, 0);
        commands.blocks = {{0x10, 0x10, -4}};
        compressed_substitutions = 0;
        for (const auto& [address, size] :
             {std::pair<uint32_t, uint32_t>{0x100, 9}, {0x120, 255}, {0x400, 256}, {0x500, 2}}) {
          commands.substitutions.push_back(store(address, size));
          add_substitution(address, size, commands.substitutions.back().bytes);
        }
        for (const uint32_t address : {0x700U, 0x701U, 0x900U}) {
          commands.single_bytes.push_back(store(address, 1));
          add_substitution(address, 1, commands.single_bytes.back().bytes);
        }
        const Bytes equal(60, 7);
        add_substitution(0xA00, 60, equal.data());
        commands.fills = {{0xA00, 60, 7}};
        compressed_substitutions = 1;
        use_fill_command = 0;
        add_substitution(0xB00, 60, equal.data());
        commands.owned_bytes.push_back(lzss_encoder{}.encoded(equal));
        const auto& stream = commands.owned_bytes.back();
        commands.compressed = {{0xB00, static_cast<uint32_t>(stream.size()), stream.data()}};
        incr_enabled = 1;
        for (const uint32_t value : {0x20000U, 4U}) {
          commands.increments.push_back({value, {0xC00, 0xC10, 0xC14 + value}});
          for (const uint32_t address : commands.increments.back().addresses) {
            add_increment(address, value, 99, 1);
          }
        }
        if (memory_mode) {
          add_checksum(&first_checksum1, &last_checksum1, 0x10, 0x20);
          add_checksum(&first_checksum2, &last_checksum2, 0x10, 0x24);
          commands.regions1 = {{0x10, 0x20}};
          commands.regions2 = {{0x10, 0x24}};
          commands.checksum1 = checksum1 = 77;
          commands.checksum2 = checksum2 = 78;
        }
        version = patch_version;
        relative_substitutions = relative ? 1 : 0;
        fDiffMemory = memory_mode ? 1 : 0;
        const file_data first = {"a", nullptr, 3, 1, 0, nullptr, nullptr, 5};
        const file_data second = {"b", nullptr, 4, 2, 0, nullptr, nullptr, 6};
        uint8_t* bytes = nullptr;
        uint32_t size = 0;
        dump_to_buf(&first, &second, &bytes, &size);
        const Bytes engines(bytes, bytes + size);

        const format_settings settings = {patch_version, memory_mode, false, relative};
        const size_t price = size_of_patch(commands, settings);
        const Bytes told = write_patch(std::move(commands), kHeader, settings);
        EXPECT_EQ(told.size(), price);
        const size_t header = patch_version == 0 ? 0 : 20;
        ASSERT_GE(told.size(), header);
        EXPECT_EQ(Bytes(told.begin() + static_cast<std::ptrdiff_t>(header), told.end()), engines);
        if (header > 0) {
          EXPECT_EQ(Bytes(told.begin(), told.begin() + 20),
                    (Bytes{0x7F, 'Q', 'V', 'R', 0, 0, 0, 1, 0, 0, 0, 7, 0, 0, 0, 0, 4, 0, 0, 0}));
        }
      }
    }
  }
  reset_all_state();
}

TEST(PatchAsAValue, DisturbsNoComparisonThatIsUnderWay) {
  reset_all_state();
  gen_endian_init();
  const uint8_t byte = 9;
  add_substitution(0x10, 1, &byte);
  new_output_buf();
  debug_level = 8;
  patch_commands commands;
  commands.substitutions = {store(0, 60)};
  commands.increments = {{4, {4}}};
  const CapturedRun run = capture([&] {
    write_patch(std::move(commands), kHeader, {0, false, true, true});
  });
  debug_level = 0;
  EXPECT_EQ(run.errors, "");
  EXPECT_EQ(get_output_buf_size(), 0U);
  dump_command_set(0);
  EXPECT_EQ(Bytes(get_output_buf(), get_output_buf() + get_output_buf_size()),
            (Bytes{3, 0, 0, 2, 1, 0, 1, 0, 0x10, 0, 0, 0, 9}));
  reset_all_state();
}

TEST(PatchAsAValue, KeepsTheOrderOfTheBlocksAndTakesAnyNumberOfClasses) {
  patch_commands commands;
  commands.blocks = {{0x300, 4, 8}, {0x100, 4, 8}, {0x104, 4, 8}};
  for (uint32_t i = 40; i > 0; --i) {
    commands.increments.push_back({i * 0x30000, {4 * i, 4 * i + 4}});
  }
  commands.increments.push_back({5, {}});
  const format_settings settings = {0, false, true, true};
  const size_t stream_price = cost_of_increments(commands.increments);
  const Bytes patch = write_patch(std::move(commands), kHeader, settings);
  EXPECT_EQ(Bytes(patch.begin() + 16, patch.begin() + 31),
            (Bytes{3, 0, 3, 0, 0, 3, 0, 0, 0, 0, 4, 0, 0, 0, 8}));
  EXPECT_EQ(Bytes(patch.begin() + 31, patch.begin() + 35), (Bytes{0, 0, 1, 0}));
  EXPECT_EQ(Bytes(patch.begin() + 43, patch.begin() + 47), (Bytes{0, 0, 1, 4}));
  EXPECT_EQ(patch[55], 7);
  EXPECT_EQ(patch.size(), 55 + stream_price);
  // Of 40 classes each takes 41 bits for its value, 22 for a map and 7 at least for two jumps.
  EXPECT_GT(stream_price, 40U * 70 / 8);
}

struct PriceCase {
  const char* name;
  std::function<void(patch_commands*)> add;
  size_t cost;  // beside an empty patch
};

TEST(PatchAsAValue, CostsWhatTheTableSays) {
  const auto substitute = [](std::initializer_list<std::pair<uint32_t, uint32_t>> stores) {
    return [stores = std::vector<std::pair<uint32_t, uint32_t>>(stores)](patch_commands* commands) {
      for (const auto& [address, size] : stores) {
        commands->substitutions.push_back(store(address, size));
      }
    };
  };
  const size_t limit = 65535;
  constexpr size_t kAbsoluteCost = kAbsoluteSingleByteCost + 1;
  constexpr size_t kRelativeCost = kRelativeSingleByteCost + 1;
  constexpr size_t kPairCost = kRelativeListCost + 2 * kRelativeCost;
  // Runs of single bytes, each out of reach of the one before.
  const auto spread = [](size_t runs, size_t length) {
    return [=](patch_commands* commands) {
      for (size_t i = 0; i < runs * length; ++i) {
        commands->single_bytes.push_back(
            store(static_cast<uint32_t>(1000 * (i / length) + i % length), 1));
      }
    };
  };
  const PriceCase cases[] = {
      {"nothing", [](patch_commands*) {}, 0},
      {"block",
       [](patch_commands* c) {
         c->blocks = {{0, 4, 4}};
       },
       kBlockCost},
      {"one store", substitute({{0, 9}}), kStoreCommandCost + kAbsoluteStoreCost + 9},
      {"two close ones", substitute({{0, 9}, {255, 255}}),
       kStoreCommandCost + kRelativeListCost + 2 * kRelativeStoreCost + 264},
      {"out of reach", substitute({{0, 9}, {kRelativeReach, 9}}),
       kStoreCommandCost + 2 * kAbsoluteStoreCost + 18},
      {"too large", substitute({{0, kRelativeReach}, {8, 9}}),
       kStoreCommandCost + 2 * kAbsoluteStoreCost + kRelativeReach + 9},
      {"single byte", [](patch_commands* c) { c->single_bytes = {store(0, 1)}; },
       kStoreCommandCost + kAbsoluteSingleByteCost + 1},
      {"close bytes",
       [](patch_commands* c) {
         c->single_bytes = {store(0, 1), store(5, 1)};
       },
       kStoreCommandCost + kRelativeListCost + 2 * (kRelativeSingleByteCost + 1)},
      {"fill",
       [](patch_commands* c) {
         c->fills = {{0, 4, 4}};
       },
       kFillCommandCost + kFillCost},
      {"increment",
       [](patch_commands* c) {
         c->increments = {{0x20000, {4, 8, 12}}};
       },
       kIncrementCommandCost + 6},
      {"region",
       [](patch_commands* c) {
         c->regions2 = {{0, 4}};
       },
       kChecksumCommandCost + kRegionCost},
      // What a count of 16 bits can just tell, and one more.
      {"full fill",
       [&](patch_commands* c) {
         c->fills.assign(limit, {0, 4, 4});
       },
       kFillCommandCost + limit * kFillCost},
      {"repeated fill",
       [&](patch_commands* c) {
         c->fills.assign(limit + 1, {0, 4, 4});
       },
       2 * kFillCommandCost + (limit + 1) * kFillCost},
      {"full move",
       [&](patch_commands* c) {
         c->blocks.assign(limit, {0, 4, 4});
       },
       limit * kBlockCost},
      {"repeated move",
       [&](patch_commands* c) {
         c->blocks.assign(limit + 1, {0, 4, 4});
       },
       kMoveCommandCost + (limit + 1) * kBlockCost},
      {"full absolute list", spread(limit, 1), kStoreCommandCost + limit * kAbsoluteCost},
      {"repeated absolute list", spread(limit + 1, 1),
       2 * kStoreCommandCost + (limit + 1) * kAbsoluteCost},
      {"as many relative lists as can be", spread(limit - 1, 2),
       kStoreCommandCost + (limit - 1) * kPairCost},
      {"one more", spread(limit, 2), 2 * kStoreCommandCost + limit * kPairCost},
      {"full relative list", spread(1, limit),
       kStoreCommandCost + kRelativeListCost + limit * kRelativeCost},
      {"one more, which is absolute", spread(1, limit + 1),
       kStoreCommandCost + kRelativeListCost + limit * kRelativeCost + kAbsoluteCost},
  };
  const format_settings settings = {1, true, false, true};
  const size_t empty = size_of_patch({}, settings);
  EXPECT_EQ(empty, 20 + 20 + kMoveCommandCost);
  for (const PriceCase& priced : cases) {
    patch_commands commands;
    priced.add(&commands);
    EXPECT_EQ(size_of_patch(commands, settings), empty + priced.cost) << priced.name;
    EXPECT_EQ(write_patch(std::move(commands), kHeader, settings).size(), empty + priced.cost)
        << priced.name;
  }
}

TEST(PatchAsAValue, IsOfAKnownVersionAndTheEnginesToo) {
  reset_all_state();
  gen_endian_init();
  const file_data file = {"f", nullptr, 6, 0, 0, nullptr, nullptr, 0};
  for (const int32_t unknown : {2, -1}) {
    const std::string words = "fatal: unsupported patch version " + std::to_string(unknown) + "\n";
    EXPECT_EQ(capture([&] {
                write_patch({}, kHeader, {unknown, false, false, true});
              }).errors,
              words);
    version = unknown;
    new_output_buf();
    CapturedRun run = capture([&] { dump_commands(&file, &file); });
    EXPECT_EQ(run.errors, words);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(get_output_buf_size(), 0U);
    run = capture([&] { dump_to_file(&file, &file, "/dev/full"); });
    EXPECT_EQ(run.errors, words);
  }
  reset_all_state();
}

TEST(Engine, MakesASecondPatchLikeTheFirstOnceItIsReset) {
  Random random(6);
  const Bytes before = random.bytes(2000, 200);  // so that adding carries nothing
  Bytes after = before;
  for (size_t i = 0; i < 400; i += 4) {
    after[i] = static_cast<uint8_t>(after[i] + 4);
  }
  std::fill_n(after.begin() + 1000, 90, uint8_t{3});  // compressed
  const auto patch = [](Bytes first_bytes, Bytes second_bytes) {
    gen_endian_init();
    incr_enabled = 1;
    version = 1;
    use_fill_command = 0;
    const file_data first = {"a", first_bytes.data(), 2000, 0, 0, nullptr, nullptr, 0};
    const file_data second = {"b", second_bytes.data(), 2000, 0, 0, nullptr, nullptr, 0};
    do_diff(first.bytes, 0, 2000, second.bytes, 0, 2000, 4, 1000, 0);
    uint8_t* bytes = nullptr;
    uint32_t size = 0;
    dump_to_buf(&first, &second, &bytes, &size);
    return Bytes(bytes, bytes + size);
  };
  reset_all_state();
  const Bytes forward = patch(before, after);
  reset_engine();
  EXPECT_EQ(version, 0);
  EXPECT_EQ(get_output_buf(), nullptr);
  const Bytes back = patch(after, before);
  EXPECT_NE(forward, back);
  reset_engine();
  EXPECT_EQ(patch(before, after), forward);
  EXPECT_NE(patch(after, before), back);  // without it, the classes of the patch before are there
  reset_all_state();
}

}  // namespace
}  // namespace kelvane
