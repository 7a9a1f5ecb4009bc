#include <algorithm>

#include "alignment_internal.h"

namespace kelvane {
namespace {

constexpr int64_t kFarthest = 4096;
// A border is not looked for beyond a place that is dearer by this many bits.
constexpr int64_t kGiveUpBits = 400;

class border_search {
 public:
  border_search(const alignment_input& input, const word_costs& costs, const shift_stretch& left,
                const shift_stretch& right)
      : input_(input), costs_(costs), left_(left), right_(right) {}

  uint32_t best() const { return best_byte(best_word()); }

 private:
  int64_t cost(int64_t shift, int64_t at) const {
    bool after_store = false;
    return costs_.word(shift, at, after_store);
  }

  int64_t best_word() const {
    const int64_t border = left_.end;
    const int64_t low = std::max<int64_t>(left_.begin, border - kFarthest);
    const int64_t high = std::min<int64_t>(right_.end, border + kFarthest);
    int64_t best = border;
    int64_t least = 0;
    int64_t sum = 0;
    for (int64_t at = border - 4; at >= low && sum <= kGiveUpBits; at -= 4) {
      sum += cost(right_.shift, at) - cost(left_.shift, at);
      if (sum < least) {
        least = sum;
        best = at;
      }
    }
    sum = 0;
    for (int64_t at = border; at + 4 <= high && sum <= kGiveUpBits; at += 4) {
      sum += cost(left_.shift, at) - cost(right_.shift, at);
      if (sum < least) {
        least = sum;
        best = at + 4;
      }
    }
    return best;
  }

  bool is_equal(int64_t shift, int64_t at) const {
    if (shift == kStoredShift) {
      return false;
    }
    const int64_t place = at - shift;
    return place >= 0 && place < static_cast<int64_t>(input_.images.old_image.size()) &&
           has_old(input_.images, place, 1) &&
           input_.images.old_image[static_cast<size_t>(place)] ==
               input_.images.new_image[static_cast<size_t>(at)];
  }

  uint32_t best_byte(int64_t border) const {
    int64_t best = border;
    int most = 0;
    int gained = 0;
    for (int64_t at = border - 1; at >= std::max<int64_t>(border - 4, left_.begin); --at) {
      gained += static_cast<int>(is_equal(right_.shift, at)) -
                static_cast<int>(is_equal(left_.shift, at));
      if (gained > most) {
        most = gained;
        best = at;
      }
    }
    gained = 0;
    for (int64_t at = border; at < std::min<int64_t>(border + 4, right_.end); ++at) {
      gained += static_cast<int>(is_equal(left_.shift, at)) -
                static_cast<int>(is_equal(right_.shift, at));
      if (gained > most) {
        most = gained;
        best = at + 1;
      }
    }
    return static_cast<uint32_t>(best);
  }

  const alignment_input& input_;
  const word_costs& costs_;
  const shift_stretch& left_;
  const shift_stretch& right_;
};

}  // namespace

void settle_borders(const alignment_input& input, const word_costs& costs,
                    std::vector<shift_stretch>& stretches) {
  for (size_t i = 0; i + 1 < stretches.size(); ++i) {
    const uint32_t border = border_search(input, costs, stretches[i], stretches[i + 1]).best();
    stretches[i].end = border;
    stretches[i + 1].begin = border;
  }
  std::vector<shift_stretch> settled;
  for (const shift_stretch& stretch : stretches) {
    if (stretch.begin == stretch.end) {
      continue;
    }
    if (!settled.empty() && settled.back().shift == stretch.shift) {
      settled.back().end = stretch.end;
    } else {
      settled.push_back(stretch);
    }
  }
  stretches = std::move(settled);
}

}  // namespace kelvane
