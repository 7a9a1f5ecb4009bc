// SPDX-License-Identifier: Apache-2.0
#include "dense_writer.h"

#include <algorithm>
#include <array>
#include <bit>

#include "dense_coder.h"
#include "dense_model.h"
#include "dense_prices.h"

namespace kelvane {
namespace {

constexpr uint32_t kVersion = 1;

class header_writer {
 public:
  explicit header_writer(std::vector<uint8_t>& payload) : payload_(payload) {}
  void byte(uint32_t value) { payload_.push_back(static_cast<uint8_t>(value)); }
  void word(uint32_t value) {
    std::array<uint8_t, 4> bytes = {};
    store_word(bytes.data(), value, ByteOrder::kLittle);
    payload_.insert(payload_.end(), bytes.begin(), bytes.end());
  }
  void number(uint32_t value) {
    for (; value >= 128; value >>= 7U) {
      byte(value % 128 + 128);
    }
    byte(value);
  }

 private:
  std::vector<uint8_t>& payload_;
};

uint32_t checksum_of(std::span<const uint8_t> image) {
  return kelvane_dense_checksum(0, image.data(), static_cast<uint32_t>(image.size()));
}

class payload_writer {
 public:
  // Without a payload it is only measured.
  payload_writer(const plan_images& images, const dense_plan& plan, const dense_options& options,
                 std::vector<uint8_t>* payload)
      : images_(images),
        plan_(plan),
        options_(options),
        model_(images.old_image, static_cast<uint32_t>(images.new_image.size()), options, plan.map),
        decoder_(model_.decoder()),
        coder_(decoder_, payload) {}

  std::vector<uint8_t> header(const image_checksums& checksums) const;

  // All behind the header. Gives its size.
  size_t write() {
    write_map();
    write_commands();
    return coder_.finish();
  }

  // The map and the tokens of copies, in one of `share` pieces of the new image.
  size_t estimate(uint32_t share) {
    write_map();
    for (const dense_copy& copy : plan_.copies) {
      uint32_t done = 0;
      while (done < copy.length) {
        const uint32_t at = copy.target + done;
        const uint32_t piece = std::min(copy.length - done, kPiece - at % kPiece);
        if (at / kPiece % share == 0) {
          write_tokens({copy.source + done, at, piece});
        }
        done += piece;
      }
    }
    return coder_.finish();
  }

 private:
  static constexpr uint32_t kPiece = 1U << 14U;

  void write_map();
  void write_commands();
  void write_command(uint32_t literals, const dense_copy& copy);
  void write_items(uint32_t end);
  void write_match(const dense_item& item);
  void write_copy(const dense_copy& copy);
  void write_tokens(const dense_copy& copy);
  uint32_t write_token(uint32_t source, uint32_t position, uint32_t left);
  void write_value(const kelvane_dense_token& token, uint32_t position, uint32_t value);
  uint32_t new_value(uint32_t position, const kelvane_dense_token& token) const;
  // Byte `k` of a token in memory.
  static uint32_t value_byte(const kelvane_dense_token& token, uint32_t value, uint32_t k) {
    return value >> 8 * (k ^ token.flip) & 0xFFU;
  }
  // Where byte `k` of a token stands, which replaces another one.
  kelvane_dense_place changed_place(uint32_t position, uint32_t k, uint32_t old_byte) const {
    const uint32_t ahead =
        k == 0 ? decoder_.state.recent & 0xFFU : images_.new_image[position + k - 1];
    return {position + k, ahead, 256 + old_byte};
  }
  // Bytes of the new image that a decoder knows when it goes on behind them.
  void pass(uint32_t at, uint32_t count) {
    for (const uint8_t byte : images_.new_image.subspan(at, count)) {
      decoder_.state.recent = recent_behind(decoder_.state.recent, byte);
    }
  }
  bool told_by_difference(const kelvane_dense_token& token, uint32_t position, uint32_t value,
                          uint32_t& difference) const;
  uint32_t new_size() const { return decoder_.info.new_size; }

  const plan_images& images_;
  const dense_plan& plan_;
  const dense_options& options_;
  dense_model model_;
  kelvane_dense_decoder& decoder_;
  dense_coder coder_;
  std::vector<dense_item>::const_iterator item_;
  uint32_t position_ = 0;
  uint32_t source_end_ = 0;
  size_t next_entry_ = 0;
};

std::vector<uint8_t> payload_writer::header(const image_checksums& checksums) const {
  const uint32_t base = options_.target.base;
  const uint32_t nibbles =
      base == 0 ? 0 : std::min(7U, static_cast<uint32_t>(std::countr_zero(base)) / 4);
  const kelvane_dense_info& info = decoder_.info;
  std::vector<uint8_t> bytes;
  header_writer header(bytes);
  header.byte(kVersion | static_cast<uint32_t>(info.model) << 4U |
              static_cast<uint32_t>(info.reads_new) << 6U |
              static_cast<uint32_t>(info.differences) << 7U);
  header.byte(info.machine | static_cast<uint32_t>(info.code_big_endian) << 3U |
              static_cast<uint32_t>(info.data_big_endian) << 4U | nibbles << 5U);
  header.word(checksums.old_image);
  header.word(checksums.new_image);
  header.number(info.new_size);
  const uint32_t change = info.old_size - info.new_size;
  header.number(folded(change));
  header.number(base >> 4 * nibbles);
  header.number(static_cast<uint32_t>(plan_.map.size()));
  return bytes;
}

// A source as one of the places where it was to be expected, if it is; see
// kelvane_dense_read_map.
void payload_writer::write_map() {
  std::array<uint32_t, KELVANE_DENSE_PLACES> left = {};
  uint32_t target = 0;
  uint32_t source_end = 0;
  kelvane_dense_begin_map(&decoder_);
  for (uint32_t i = 0; i < plan_.map.size(); ++i) {
    const kelvane_dense_entry& entry = plan_.map[i];
    coder_.number(KELVANE_DENSE_M_GAP, entry.target - target);
    const uint32_t expected = kelvane_dense_free_place(&decoder_, i, source_end);
    uint32_t choice = 0;
    while (
        choice < KELVANE_DENSE_PLACE_NUMBER &&
        entry.source !=
            (choice == 0 ? expected : kelvane_dense_free_place(&decoder_, i, left[choice - 1]))) {
      ++choice;
    }
    coder_.tree(KELVANE_DENSE_M_PLACE, choice, 3);
    if (choice == KELVANE_DENSE_PLACE_NUMBER) {
      coder_.signed_number(KELVANE_DENSE_M_SOURCE, entry.source - expected);
    }
    if (choice != 0) {
      const size_t last = std::min(choice, KELVANE_DENSE_PLACES) - 1;
      std::copy_backward(left.begin(), left.begin() + last, left.begin() + last + 1);
      left[0] = expected;
    }
    uint32_t context = 0;
    const uint32_t hole = kelvane_dense_hole_at(&decoder_, i, entry.source, entry.target,
                                                choice == 0 ? 1 : 0, &context);
    if (hole != 0) {
      coder_.flag(context, entry.length == hole);
    }
    if (entry.length != hole) {
      coder_.number(KELVANE_DENSE_M_LENGTH, entry.length - 1);
    }
    target = entry.target + entry.length;
    source_end = entry.source + entry.length;
    kelvane_dense_file_entry(&decoder_, i);
    decoder_.entry_count = i + 1;
  }
  kelvane_dense_reset_model(&decoder_);
}

void payload_writer::write_command(uint32_t literals, const dense_copy& copy) {
  while (next_entry_ < plan_.map.size() && plan_.map[next_entry_].target < position_) {
    ++next_entry_;
  }
  if (next_entry_ < plan_.map.size()) {
    const kelvane_dense_entry& entry = plan_.map[next_entry_];
    const bool is_next = entry.target == position_ + literals && entry.source == copy.source &&
                         entry.length == copy.length;
    coder_.flag(KELVANE_DENSE_ENTRY_CONTEXT, is_next);
    if (is_next) {
      return;
    }
  }
  coder_.number(KELVANE_DENSE_C_LITERALS, literals);
  coder_.number(KELVANE_DENSE_C_COPY, copy.length);
  if (copy.length == 0) {
    return;
  }
  coder_.signed_number(KELVANE_DENSE_C_SOURCE, copy.source - source_end_);
}

void payload_writer::write_match(const dense_item& item) {
  kelvane_dense_model& model = decoder_.state.model;
  const bool is_new = item.kind == dense_item::new_image;
  coder_.flag(kelvane_dense_context_of(KELVANE_DENSE_C_MATCH_NEW, 0), is_new);
  coder_.number(KELVANE_DENSE_C_OLD_LENGTH + (is_new ? 1U : 0U), item.length - 2);
  if (is_new) {
    const uint32_t distance = position_ - item.from;
    const bool is_same = distance == model.match_distance;
    coder_.flag(kelvane_dense_context_of(KELVANE_DENSE_C_SAME_DISTANCE, 0), is_same);
    if (!is_same) {
      coder_.number(KELVANE_DENSE_C_DISTANCE, distance - 1);
    }
    model.match_distance = distance;
  } else {
    coder_.signed_number(KELVANE_DENSE_C_PLACE, item.from - (position_ - model.match_shift));
    model.match_shift = position_ - item.from;
  }
}

void payload_writer::write_items(uint32_t end) {
  uint8_t& matches = decoder_.state.model.matches;
  const auto tell = [&](bool is_match) {
    coder_.flag(kelvane_dense_match_context(position_, matches), is_match);
    matches = static_cast<uint8_t>((matches * 2U + (is_match ? 1U : 0U)) & 3U);
  };
  for (; position_ < end; ++item_) {
    if (item_->kind != dense_item::literal) {
      tell(true);
      write_match(*item_);
      if (item_->kind == dense_item::new_image) {
        decoder_.state.recent = 0;
      } else {
        pass(position_, item_->length);
      }
      position_ += item_->length;
      continue;
    }
    for (uint32_t i = 0; i < item_->length; ++i, ++position_) {
      tell(false);
      coder_.literal(literal_place(position_, decoder_.state.recent), images_.new_image[position_]);
      pass(position_, 1);
    }
  }
}

uint32_t payload_writer::new_value(uint32_t position, const kelvane_dense_token& token) const {
  uint32_t value = 0;
  for (uint32_t k = 0; k < token.length; ++k) {
    value += uint32_t{images_.new_image[position + k]} << 8 * (k ^ token.flip);
  }
  return value;
}

// Whether the value comes out if its difference from the prediction is told; of a branch, that of
// its target.
bool payload_writer::told_by_difference(const kelvane_dense_token& token, uint32_t position,
                                        uint32_t value, uint32_t& difference) const {
  if (token.kind != KELVANE_DENSE_BRANCH) {
    difference = kelvane_dense_difference(&token, value);
    return true;
  }
  const uint32_t place = decoder_.info.base + position;
  uint32_t target = 0;
  if (kelvane_dense_branch_target(&decoder_, value, place, &target) != token.form) {
    return false;
  }
  difference = target - token.target;
  return kelvane_dense_branch_to(&decoder_, token.old_value, place, target, token.form) == value;
}

void payload_writer::write_value(const kelvane_dense_token& token, uint32_t position,
                                 uint32_t value) {
  uint32_t* const list = decoder_.state.model.differences[kelvane_dense_list(&token)];
  const uint32_t choice_id = KELVANE_DENSE_C_CHOICE + token.kind;
  const uint32_t mask_id = KELVANE_DENSE_C_MASK + (token.length == 4 ? 1U : 0U);
  const counter_prices prices(decoder_);
  uint32_t mask = 0;
  const auto each_changed = [&](const auto& take) {
    for (uint32_t k = 0; k < token.length; ++k) {
      const uint32_t old_byte = value_byte(token, token.old_value, k);
      if (value_byte(token, value, k) != old_byte) {
        take(k, changed_place(position, k, old_byte), images_.new_image[position + k]);
      }
    }
  };
  each_changed([&](uint32_t k, const kelvane_dense_place&, uint8_t) { mask |= 1U << k; });
  uint32_t difference = 0;
  uint32_t choice = KELVANE_DENSE_CHOICE_BYTES;
  if (told_by_difference(token, position, value, difference)) {
    const auto known =
        static_cast<uint32_t>(std::find(list, list + KELVANE_DENSE_DIFFERENCES, difference) - list);
    const uint32_t price =
        prices.tree(choice_id, known, 3) +
        (known == KELVANE_DENSE_CHOICE_DIFFERENCE
             ? prices.signed_number(KELVANE_DENSE_C_DIFFERENCE + token.kind, difference)
             : 0);
    uint32_t bytes_price = prices.tree(choice_id, KELVANE_DENSE_CHOICE_BYTES, 3) +
                           prices.tree(mask_id, mask, token.length);
    // Literals are the dearest part of this to price: no more of them than it takes to tell.
    each_changed([&](uint32_t, const kelvane_dense_place& place, uint8_t byte) {
      bytes_price += bytes_price < price ? prices.literal(place, byte) : 0;
    });
    choice = price <= bytes_price ? known : choice;
  } else {
    uint32_t target = 0;
    difference =
        kelvane_dense_branch_target(&decoder_, value, decoder_.info.base + position, &target) != 0
            ? target - token.target
            : 0;
  }
  coder_.tree(choice_id, choice, 3);
  if (choice == KELVANE_DENSE_CHOICE_BYTES) {
    coder_.tree(mask_id, mask, token.length);
    each_changed([&](uint32_t, const kelvane_dense_place& place, uint8_t byte) {
      coder_.literal(place, byte);
    });
  } else if (choice == KELVANE_DENSE_CHOICE_DIFFERENCE) {
    coder_.signed_number(KELVANE_DENSE_C_DIFFERENCE + token.kind, difference);
  }
  kelvane_dense_note_difference(list, choice, difference);
}

uint32_t payload_writer::write_token(uint32_t source, uint32_t position, uint32_t left) {
  kelvane_dense_token token;
  kelvane_dense_classify(&decoder_, source, position, left, &token);
  const uint32_t value = new_value(position, token);
  const bool is_hit = value == token.predicted;
  coder_.flag(kelvane_dense_predicted_context(&decoder_, &token), is_hit);
  if (!is_hit) {
    const bool stays = value == token.old_value;
    if (token.predicted != token.old_value) {
      coder_.flag(kelvane_dense_context_of(KELVANE_DENSE_C_UNCHANGED, kelvane_dense_class(&token)),
                  stays);
    }
    if (token.predicted != token.old_value && stays) {
      // The flag has told it.
    } else if (token.kind == KELVANE_DENSE_BYTE) {
      coder_.literal(changed_place(position, 0, token.old_value), images_.new_image[position]);
    } else {
      write_value(token, position, value);
    }
  }
  kelvane_dense_note(&decoder_, &token, decoder_.info.base + position, value, is_hit ? 1 : 0);
  pass(position, token.length);
  return token.length;
}

void payload_writer::write_copy(const dense_copy& copy) {
  decoder_.state.model.match_shift = copy.target - copy.source;
  source_end_ = copy.source + copy.length;
  write_tokens(copy);
  position_ += copy.length;
}

void payload_writer::write_tokens(const dense_copy& copy) {
  uint32_t done = 0;
  while (done < copy.length) {
    done += write_token(copy.source + done, copy.target + done, copy.length - done);
  }
}

void payload_writer::write_commands() {
  item_ = plan_.items.begin();
  for (const dense_copy& copy : plan_.copies) {
    write_command(copy.target - position_, copy);
    write_items(copy.target);
    write_copy(copy);
  }
  if (position_ != new_size()) {
    write_command(new_size() - position_, {});
    write_items(new_size());
  }
}

}  // namespace

image_checksums checksums_of(const plan_images& images) {
  return {checksum_of(images.old_image), checksum_of(images.new_image)};
}

std::vector<uint8_t> write_dense(const plan_images& images, const image_checksums& checksums,
                                 const dense_plan& plan, const dense_options& options,
                                 size_t size) {
  std::vector<uint8_t> payload;
  payload.reserve(size);
  payload_writer writer(images, plan, options, &payload);
  const std::vector<uint8_t> header = writer.header(checksums);
  payload.insert(payload.end(), header.begin(), header.end());
  writer.write();
  return payload;
}

size_t size_of_dense(const plan_images& images, const dense_plan& plan,
                     const dense_options& options) {
  payload_writer writer(images, plan, options, nullptr);
  return writer.header({}).size() + writer.write();
}

size_t estimate_dense(const plan_images& images, const dense_plan& plan,
                      const dense_options& options) {
  constexpr size_t kLarge = 1U << 19U;
  return payload_writer(images, plan, options, nullptr)
      .estimate(static_cast<uint32_t>(images.new_image.size() / kLarge + 1));
}

}  // namespace kelvane
