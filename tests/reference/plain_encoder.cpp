#include "plain_encoder.h"

#include <algorithm>
#include <cstddef>

namespace kelvane {

namespace {

size_t at(int32_t index) {
  return static_cast<size_t>(index);
}

}  // namespace

void PlainEncoder::init_tree() {
  std::fill(rson_.begin() + kWindow + 1, rson_.end(), kNil);
  std::fill(dad_.begin(), dad_.begin() + kWindow, kNil);
}

// Makes the parent of `old_child` point to `new_child`.
void PlainEncoder::replace_child(int32_t old_child, int32_t new_child) {
  const int32_t parent = dad_[at(old_child)];
  if (rson_[at(parent)] == old_child) {
    rson_[at(parent)] = new_child;
  } else {
    lson_[at(parent)] = new_child;
  }
}

void PlainEncoder::insert_node(int32_t r) {
  int32_t p = kWindow + 1 + text_buf_[at(r)];
  int32_t direction = 1;
  lson_[at(r)] = kNil;
  rson_[at(r)] = kNil;
  match_length_ = 0;
  for (;;) {
    int32_t& link = direction >= 0 ? rson_[at(p)] : lson_[at(p)];
    if (link == kNil) {
      link = r;
      dad_[at(r)] = p;
      return;
    }
    p = link;
    int32_t i = 1;
    for (; i < kLongest; ++i) {
      direction = text_buf_[at(r + i)] - text_buf_[at(p + i)];
      if (direction != 0) {
        break;
      }
    }
    if (i > match_length_) {
      match_position_ = p;
      match_length_ = i;
      if (i >= kLongest) {
        break;
      }
    }
  }
  dad_[at(r)] = dad_[at(p)];
  lson_[at(r)] = lson_[at(p)];
  rson_[at(r)] = rson_[at(p)];
  dad_[at(lson_[at(p)])] = r;
  dad_[at(rson_[at(p)])] = r;
  replace_child(p, r);
  dad_[at(p)] = kNil;
}

void PlainEncoder::delete_node(int32_t p) {
  if (dad_[at(p)] == kNil) {
    return;
  }
  int32_t q = 0;
  if (rson_[at(p)] == kNil) {
    q = lson_[at(p)];
  } else if (lson_[at(p)] == kNil) {
    q = rson_[at(p)];
  } else {
    q = lson_[at(p)];
    if (rson_[at(q)] != kNil) {
      while (rson_[at(q)] != kNil) {
        q = rson_[at(q)];
      }
      rson_[at(dad_[at(q)])] = lson_[at(q)];
      dad_[at(lson_[at(q)])] = dad_[at(q)];
      lson_[at(q)] = lson_[at(p)];
      dad_[at(lson_[at(p)])] = q;
    }
    rson_[at(q)] = rson_[at(p)];
    dad_[at(rson_[at(p)])] = q;
  }
  dad_[at(q)] = dad_[at(p)];
  replace_child(p, q);
  dad_[at(p)] = kNil;
}

std::vector<uint8_t> PlainEncoder::encode(std::span<const uint8_t> source) {
  std::vector<uint8_t> output;
  std::vector<uint8_t> group = {0};
  uint8_t mask = 1;
  int32_t s = 0;
  int32_t r = kWindow - kLongest;
  size_t next = 0;
  init_tree();
  std::fill(text_buf_.begin(), text_buf_.begin() + r, uint8_t{0});
  int32_t remaining = 0;
  while (remaining < kLongest && next < source.size()) {
    text_buf_[at(r + remaining)] = source[next++];
    ++remaining;
  }
  if (remaining == 0) {
    return output;
  }
  for (int32_t i = 1; i <= kLongest; ++i) {
    insert_node(r - i);
  }
  insert_node(r);
  while (remaining > 0) {
    match_length_ = std::min(match_length_, remaining);
    if (match_length_ < kShortest) {
      match_length_ = 1;
      group[0] = static_cast<uint8_t>(group[0] | mask);
      group.push_back(text_buf_[at(r)]);
    } else {
      group.push_back(static_cast<uint8_t>(match_position_ & 0xFF));
      group.push_back(
          static_cast<uint8_t>(((match_position_ / 16) & 0xF0) | (match_length_ - kShortest)));
    }
    mask = static_cast<uint8_t>(mask * 2);
    if (mask == 0) {
      output.insert(output.end(), group.begin(), group.end());
      group = {0};
      mask = 1;
    }
    const int32_t steps = match_length_;
    for (int32_t step = 0; step < steps; ++step) {
      delete_node(s);
      const bool has_source = next < source.size();
      if (has_source) {
        text_buf_[at(s)] = source[next];
        if (s < kLongest - 1) {
          text_buf_[at(s + kWindow)] = source[next];
        }
        ++next;
      } else {
        --remaining;
      }
      s = (s + 1) % kWindow;
      r = (r + 1) % kWindow;
      if (remaining > 0) {
        insert_node(r);
      }
    }
  }
  if (group.size() > 1) {
    output.insert(output.end(), group.begin(), group.end());
  }
  return output;
}

}  // namespace kelvane
