#pragma once

#include <algorithm>
#include <array>
#include <cstdio>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "binshared.h"
#include "block_moves.h"
#include "byte_order.h"
#include "captured_run.h"
#include "debug_print.h"
#include "diffout.h"
#include "engine_fixture.h"
#include "engine_settings.h"
#include "increment_coder.h"
#include "increments.h"
#include "operation_table.h"
#include "substitution.h"

// Steps of the tables of this folder: commands recorded in the engine's lists, and what the lists
// hold then. A cell shows what a step gives and then what it says, with _ for a blank and | at the
// end of a line; a run that it ends adds ! and the status. Addresses are in hexadecimal.
namespace kelvane {

// Bytes as a table writes them: "abc are letters, 01ff is hexadecimal, 9x61 means nine times 61, +
// joins pieces.
struct Data {
  Bytes bytes;
};

inline void from_text(const std::string& text, Data* data) {
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find('+', start), text.size());
    std::string piece = text.substr(start, end - start);
    const size_t times = piece.find('x');
    size_t count = 1;
    if (piece[0] != '"' && times != std::string::npos) {
      count = std::stoul(piece.substr(0, times));
      piece.erase(0, times + 1);
    }
    for (; count > 0; --count) {
      if (piece[0] == '"') {
        data->bytes.insert(data->bytes.end(), piece.begin() + 1, piece.end());
      }
      for (size_t i = 0; piece[0] != '"' && i < piece.size(); i += 2) {
        data->bytes.push_back(static_cast<uint8_t>(std::stoul(piece.substr(i, 2), nullptr, 16)));
      }
    }
    start = end + 1;
  }
}

inline std::string in_hex(uint32_t number, const char* format = "%x") {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), format, number);
  return text.data();
}

inline std::string hex_of(const Bytes& bytes) {
  std::string text;
  for (const uint8_t byte : bytes) {
    text += in_hex(byte, "%02x");
  }
  return text;
}

inline std::string separated(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) {
    text += (text.empty() ? "" : ";") + item;
  }
  return text;
}

// The records of a list: addresses with sizes, with the bytes that they store, or with the value
// that they hold.
inline std::string moves_in(const command_record* list) {
  std::vector<std::string> items;
  for (const Move& move : moves_of(list)) {
    items.push_back(in_hex(move.address) + ":" + std::to_string(move.size));
  }
  return separated(items);
}

inline std::string stores_in(const command_record* list) {
  std::vector<std::string> items;
  for (const Store& store : stores_of(list)) {
    items.push_back(in_hex(store.address) + ":" + hex_of(store.bytes));
  }
  return separated(items);
}

inline std::string values_in(const command_record* list) {
  std::vector<std::string> items;
  for (; list != nullptr; list = list->next) {
    items.push_back(in_hex(list->address) + ":" + in_hex(list->data.value));
  }
  return separated(items);
}

inline Bytes output_bytes() {
  return {get_output_buf(), get_output_buf() + get_output_buf_size()};
}

// A block as it stands in the patch.
struct Block {
  uint32_t source;
  uint32_t length;
  int32_t shift;
};

// The blocks that the moves added so far give, which are used up.
inline std::vector<Block> blocks_written() {
  new_output_buf();
  output_block_moves(first_move);
  first_move = nullptr;
  last_move = nullptr;
  const Bytes bytes = output_bytes();
  std::vector<Block> blocks(load_half(bytes.data(), ByteOrder::kLittle));
  EXPECT_EQ(bytes.size(), 2 + 12 * blocks.size());
  const auto word = [&bytes](size_t at) { return load_word(&bytes[at], ByteOrder::kLittle); };
  for (size_t i = 0; i < blocks.size(); ++i) {
    const size_t at = 2 + 12 * i;
    blocks[i] = {word(at), word(at + 4), static_cast<int32_t>(word(at + 8))};
  }
  return blocks;
}

inline std::string blocks_in_text() {
  std::vector<std::string> items;
  for (const Block& block : blocks_written()) {
    items.push_back(in_hex(block.source) + "+" + in_hex(block.length) + ":" +
                    std::to_string(block.shift));
  }
  return separated(items);
}

inline void set_setting(const std::string& name, int32_t value) {
  static const std::map<std::string, int32_t*> words = {
      {"debug_level", &debug_level},
      {"incr_enabled", &incr_enabled},
      {"incr_size", &incr_size},
      {"min_compression_percent", &min_compression_percent},
      {"min_compression_length", &min_compression_length},
      {"min_swap_block_size", &min_swap_block_size},
      {"swap_maxtrees", &swap_maxtrees},
      {"TargetIsBigEndian", &TargetIsBigEndian}};
  static const std::map<std::string, uint8_t*> flags = {
      {"use_fill_command", &use_fill_command},
      {"compressed_substitutions", &compressed_substitutions},
      {"substitution_splicing", &substitution_splicing},
      {"relative_substitutions", &relative_substitutions},
      {"swap_enabled", &swap_enabled},
      {"swap_block_enabled", &swap_block_enabled}};
  if (words.contains(name)) {
    *words.at(name) = value;
  } else {
    *flags.at(name) = static_cast<uint8_t>(value);
  }
}

// Goes through a table with these steps and `operations`, which come first where names are equal;
// `kept` are the bytes that commands point to. @ in what is said stands for `folder`.
inline void go_through(const char* file, const std::vector<Operation>& operations,
                       std::list<Bytes>* kept, const std::string& folder = "@") {
  using Text = const char*;
  const auto keep = [kept](const Data& data) -> const Bytes& {
    return kept->emplace_back(data.bytes);
  };
  // clang-format off
  std::vector<Operation> steps = {
      {"scenario", [](Text) { reset_all_state(); gen_endian_init(); new_output_buf(); return ""; }},
      {"set", [](const std::string& name, int32_t value) { set_setting(name, value); return ""; }},
      {"add_move", [](uint32_t address, int32_t size) { add_move(address, size); return ""; }},
      {"add_abs_move", [](uint32_t address, int32_t size) { add_abs_move(address, size); return ""; }},
      {"add_checksum", [](uint32_t address, uint32_t size) { add_checksum(&first_checksum1, &last_checksum1, address, size); return ""; }},
      {"add_substitution", [=](uint32_t address, Data data) { const Bytes& bytes = keep(data); add_substitution(address, static_cast<uint32_t>(bytes.size()), bytes.data()); return ""; }},
      KELVANE_OPERATION(add_increment),
      {"blocks", [](Text) { return blocks_in_text(); }},
      {"bytes", [](Text) { return hex_of(output_bytes()); }},
      {"new_output_buf", [](Text) { new_output_buf(); return ""; }},
      {"moves", [](Text) { return moves_in(first_move); }},
      {"abs_moves", [](Text) { return moves_in(first_abs_move); }},
      {"checksums", [](Text) { return moves_in(first_checksum1); }},
      {"subs", [](Text) { return stores_in(first_sub); }},
      {"sub_sizes", [](Text) { return moves_in(first_sub); }},
      {"sub_ones", [](Text) { return stores_in(first_sub_one); }},
      {"fills", [](Text) { return moves_in(first_fill); }},
      {"sub_comps", [](Text) { return stores_in(first_sub_comp); }},
      {"incrs", [](size_t index) { return moves_in(first_incr[index]); }},
      {"incr_values", [](size_t index) { return values_in(first_incr[index]); }},
      {"incr_classes", [](Text) { return incr_values; }},
      {"counts", [](Text) { return separated({std::to_string(num_moves), std::to_string(num_abs_moves), std::to_string(num_subs), std::to_string(num_sub_ones)}); }},
  };
  // clang-format on
  steps.insert(steps.end(), operations.begin(), operations.end());
  check_table(steps, file,
              [&folder](const Operation& operation, const std::vector<std::string>& arguments) {
                std::string given;
                CapturedRun run = capture([&] { given = operation(arguments); });
                std::replace(run.errors.begin(), run.errors.end(), '\n', '|');
                std::replace(run.errors.begin(), run.errors.end(), ' ', '_');
                const size_t place = run.errors.find(folder);
                if (place != std::string::npos) {
                  run.errors.replace(place, folder.size(), "@");
                }
                return given + run.errors + (run.ended ? "!" + std::to_string(run.status) : "");
              });
}

}  // namespace kelvane
