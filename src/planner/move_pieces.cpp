#include "move_pieces.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <optional>
#include <set>

#include "memory_target.h"
#include "move_pieces_internal.h"

namespace kelvane {
namespace {

constexpr int64_t kShortestPiece = 12;
constexpr size_t kMostEdges = 4000000;
// For estimates of compressed sizes.
constexpr int kEstimateTrials = 12;
// The bytes that are compressed for the estimates of one set of pieces; of more, every piece gives
// a sample.
constexpr int64_t kMostSampled = int64_t{1} << 20U;
constexpr int64_t kLeastSample = 256;
// Circles of fewer bytes are cut to kLeastPart: a thousand parts are carried out in no time.
constexpr uint64_t kLargeCircles = uint64_t{1} << 20U;

// Calls take(begin, end) for the parts of a stretch that both images have.
void each_common_part(const plan_images& images, const shift_stretch& stretch, const auto& take) {
  const auto old_size = static_cast<int64_t>(images.old_image.size());
  const int64_t begin = std::max<int64_t>(stretch.begin, stretch.shift);
  const int64_t end = std::min<int64_t>(stretch.end, old_size + stretch.shift);
  each_new_part(images, begin, end, [&](int64_t part_begin, int64_t part_end) {
    if (const linear_map* const map = map_of(images)) {
      map->old_bytes().each_part(part_begin - stretch.shift, part_end - stretch.shift,
                                 [&](int64_t source, int64_t source_end) {
                                   take(source + stretch.shift, source_end + stretch.shift);
                                 });
    } else {
      take(part_begin, part_end);
    }
  });
}

// Calls take(begin, end) for what is left of a part of a stretch when its ends that differ are
// trimmed.
void trim(const plan_images& images, const shift_stretch& stretch, int64_t begin, int64_t end,
          const auto& take) {
  const auto is_equal = [&](int64_t at) {
    return images.old_image[static_cast<size_t>(at - stretch.shift)] ==
           images.new_image[static_cast<size_t>(at)];
  };
  while (begin < end && !is_equal(begin)) {
    ++begin;
  }
  while (begin < end && !is_equal(end - 1)) {
    --end;
  }
  if (end - begin >= kShortestPiece) {
    take(begin, end);
  }
}

// Whether one fill makes these bytes of the new image.
bool is_fill(std::span<const uint8_t> image, int64_t begin, int64_t end) {
  const auto bytes = image.subspan(static_cast<size_t>(begin), static_cast<size_t>(end - begin));
  return bytes.size() >= kLeastFill && bytes.size() <= kLargestFill &&
         std::all_of(bytes.begin(), bytes.end(), [&](uint8_t byte) { return byte == bytes[0]; });
}

// Cuts the pieces of a circle so that a part goes where one other part lies, and not on two halves.
// Where a piece ends at home, the one that lies there is cut; where this cut comes to lie at home,
// again one is cut; and so on, until a cut would be near another one. Two blocks of any sizes that
// change places come out as a few rings of parts of equal size. A ring takes a parking, and then a
// block a part; parts that lie across each other have to be cut and parked again and again, which
// made the patch for blocks of 3 and 1 MB seven times as large.
class ring_cuts {
 public:
  ring_cuts(const std::vector<moving_piece>& pieces, int64_t part_bytes)
      : pieces_(pieces), nearest_(part_bytes) {}

  void add_circle(std::span<const uint32_t> circle) {
    by_source_.clear();
    int64_t bytes = 0;
    for (const uint32_t piece : circle) {
      const int64_t source = pieces_[piece].source;
      by_source_.emplace(source, piece);
      cuts_.insert({source, source + pieces_[piece].length});
      bytes += pieces_[piece].length;
    }
    // Among many short pieces parts are not what decides.
    if (bytes < kLeastPartsOfPiece * nearest_ * static_cast<int64_t>(circle.size())) {
      return;
    }
    most_ = bytes / nearest_;
    for (const uint32_t piece : circle) {
      follow(pieces_[piece].destination);
      follow(pieces_[piece].destination + pieces_[piece].length);
    }
  }

  // The first cut behind a place inside of a piece that was added.
  int64_t behind(int64_t place) const { return *cuts_.upper_bound(place); }

 private:
  static constexpr int64_t kLeastPartsOfPiece = 4;

  void follow(int64_t at) {
    for (; most_ > 0; --most_) {
      const auto next = by_source_.upper_bound(at);
      if (next == by_source_.begin()) {
        return;
      }
      const moving_piece& piece = pieces_[std::prev(next)->second];
      const auto near = cuts_.lower_bound(at - nearest_ + 1);
      if (at >= piece.source + piece.length || (near != cuts_.end() && *near < at + nearest_)) {
        return;
      }
      cuts_.insert(at);
      at += piece.destination - piece.source;
    }
  }

  const std::vector<moving_piece>& pieces_;
  int64_t nearest_;
  int64_t most_ = 0;  // how many cuts may yet be made
  std::multimap<int64_t, uint32_t> by_source_;
  std::set<int64_t> cuts_;
};

// Appends a piece from `begin` to `end`, measured from its own begin, in parts of about
// `part_bytes`.
void append_parts(const moving_piece& piece, int64_t begin, int64_t end, int64_t part_bytes,
                  std::vector<moving_piece>& parts) {
  const int64_t count = std::max<int64_t>((end - begin) / part_bytes, 1);
  const int64_t length = end - begin;
  const int64_t from = begin;
  for (int64_t part = 1; part <= count; ++part) {
    int64_t to = from + length * part / count;
    to = part < count ? from + ((to - from) & ~int64_t{3}) : to;
    parts.push_back({piece.source + begin, to - begin, piece.destination + begin, 0});
    begin = to;
  }
}

std::vector<moving_piece> cut_circles(const std::vector<moving_piece>& pieces,
                                      const std::vector<std::vector<uint32_t>>& circles,
                                      int64_t piece_bytes) {
  std::vector<uint8_t> in_circle(pieces.size(), 0);
  ring_cuts rings(pieces, piece_bytes);
  for (const auto& circle : circles) {
    for (const uint32_t piece : circle) {
      in_circle[piece] = 1;
    }
    rings.add_circle(circle);
  }
  std::vector<moving_piece> cut;
  for (size_t i = 0; i < pieces.size(); ++i) {
    const moving_piece& piece = pieces[i];
    if (in_circle[i] == 0 || piece.length < 2 * piece_bytes) {
      cut.push_back(piece);
      continue;
    }
    int64_t begin = 0;
    while (begin < piece.length) {
      const int64_t end = std::min(rings.behind(piece.source + begin) - piece.source, piece.length);
      append_parts(piece, begin, end, piece_bytes, cut);
      begin = end;
    }
  }
  return cut;
}

// The bytes of pieces in circles that are long enough to be cut.
uint64_t bytes_to_cut(const piece_set& set) {
  uint64_t bytes = 0;
  for (const auto& circle : set.circles) {
    for (const uint32_t piece : circle) {
      const auto length = static_cast<uint64_t>(set.pieces[piece].length);
      bytes += length >= 2 * uint64_t{kLeastPart} ? length : 0;
    }
  }
  return bytes;
}

// Two blocks that change places by parts take one part that is given up and three moves of 12 bytes
// for every two parts: of T bytes by parts of p that is p + 18 T / p, least where p * p is 18 T. So
// the number of parts, and with it the time, grows as the root of the size.
uint32_t part_bytes(uint64_t bytes) {
  uint64_t part = kLeastPart;
  while (bytes > kLargeCircles && part * part < 18 * bytes) {
    part += 256;
  }
  return static_cast<uint32_t>(part);
}

void weigh_circles(const plan_images& images, piece_set& set) {
  int64_t all = 0;
  for (const auto& circle : set.circles) {
    for (const uint32_t index : circle) {
      all += set.pieces[index].length;
    }
  }
  optimal_parser parser(kEstimateTrials);
  for (const auto& circle : set.circles) {
    for (const uint32_t index : circle) {
      moving_piece& piece = set.pieces[index];
      int64_t sample = piece.length;
      if (all > kMostSampled) {
        sample = std::min(sample, std::max(kLeastSample, sample * kMostSampled / all));
      }
      const uint64_t packed = parser.packed_size(images.new_image.subspan(
          static_cast<size_t>(piece.destination), static_cast<size_t>(sample)));
      const auto plain = static_cast<uint64_t>(piece.length);
      const uint64_t weight = packed * kWeightOfByte * plain / static_cast<uint64_t>(sample);
      piece.store_weight = std::min(weight, plain * 85) + kWeightOfByte;
    }
  }
}

std::vector<uint32_t> all_of(const std::vector<moving_piece>& pieces) {
  std::vector<uint32_t> all(pieces.size());
  std::iota(all.begin(), all.end(), 0U);
  return all;
}

std::vector<std::vector<uint32_t>> all_circles(const piece_set& set) {
  circle_search search(set.graph);
  return search.circles(all_of(set.pieces), std::vector<uint8_t>(set.pieces.size(), 1));
}

// Fills in the graph; leaves out short pieces while it would be too large.
void find_conflicts(piece_set& set) {
  for (int64_t shortest = 2 * kShortestPiece;; shortest *= 2) {
    if (auto graph = conflicts_of(set.pieces, kMostEdges)) {
      set.graph = std::move(*graph);
      return;
    }
    std::erase_if(set.pieces, [&](const moving_piece& piece) { return piece.length < shortest; });
  }
}

}  // namespace

std::optional<piece_graph> conflicts_of(std::span<const moving_piece> pieces, size_t most_edges) {
  std::vector<uint32_t> by_source(pieces.size());
  std::iota(by_source.begin(), by_source.end(), 0U);
  std::stable_sort(by_source.begin(), by_source.end(), [&](uint32_t first, uint32_t second) {
    return pieces[first].source < pieces[second].source;
  });
  // The farthest end of all sources up to each: tells where to stop looking back.
  std::vector<int64_t> farthest(pieces.size());
  int64_t end = 0;
  for (size_t i = 0; i < pieces.size(); ++i) {
    const moving_piece& piece = pieces[by_source[i]];
    end = std::max(end, piece.source + piece.length);
    farthest[i] = end;
  }
  piece_graph graph;
  graph.ahead.resize(pieces.size());
  graph.behind.resize(pieces.size());
  size_t edges = 0;
  for (uint32_t x = 0; x < pieces.size(); ++x) {
    const int64_t begin = pieces[x].destination;
    auto i = static_cast<size_t>(
        std::lower_bound(by_source.begin(), by_source.end(), begin + pieces[x].length,
                         [&](uint32_t y, int64_t limit) { return pieces[y].source < limit; }) -
        by_source.begin());
    while (i-- > 0 && farthest[i] > begin) {
      const uint32_t y = by_source[i];
      if (++edges > most_edges) {
        return std::nullopt;
      }
      if (y != x && pieces[y].source + pieces[y].length > begin) {
        graph.behind[y].push_back(x);
        graph.ahead[x].push_back(y);
      }
    }
  }
  return graph;
}

// Bytes of a moved stretch also cost a block and some chance of joining.
lightened_stretches give_up_bytes(const plan_images& images,
                                  std::span<const shift_stretch> stretches, uint32_t bytes) {
  lightened_stretches result;
  result.stretches.assign(stretches.begin(), stretches.end());
  if (bytes == 0) {
    return result;
  }
  constexpr size_t kMostSamples = 512;
  const size_t samples = std::clamp<size_t>(size_t{kMostSampled} / bytes, 1, kMostSamples);
  optimal_parser parser(kEstimateTrials);
  const auto step = static_cast<uint32_t>(
      std::max<size_t>(bytes / 2, images.new_image.size() / samples) & ~size_t{3});
  std::optional<std::pair<size_t, uint32_t>> best;
  uint64_t least = UINT64_MAX;
  for (size_t i = 0; i < stretches.size(); ++i) {
    const shift_stretch& stretch = stretches[i];
    if (stretch.shift == kStoredShift) {
      continue;
    }
    for (uint64_t at = (stretch.begin + 3) & ~3U; at + bytes <= stretch.end; at += step) {
      if (const linear_map* const map = map_of(images);
          map != nullptr &&
          !map->new_bytes().has_all(static_cast<int64_t>(at), static_cast<int64_t>(at + bytes))) {
        continue;
      }
      uint64_t weight = parser.packed_size(images.new_image.subspan(at, bytes)) * kWeightOfByte;
      if (stretch.shift != 0) {
        weight += (12 + bytes * 3 / 10) * kWeightOfByte;
      }
      if (weight < least) {
        least = weight;
        best = {i, static_cast<uint32_t>(at)};
      }
    }
  }
  if (best) {
    const auto [index, at] = *best;
    const shift_stretch whole = stretches[index];
    result.stretches[index].end = at;
    result.stretches.insert(result.stretches.begin() + static_cast<ptrdiff_t>(index) + 1,
                            {{at, at + bytes, kStoredShift}, {at + bytes, whole.end, whole.shift}});
    result.given_up_weight = least;
  }
  return result;
}

piece_set cut_pieces(const plan_images& images, const lightened_stretches& lightened, bool cut_long,
                     bool fills) {
  piece_set set;
  set.given_up_weight = lightened.given_up_weight;
  for (const shift_stretch& stretch : lightened.stretches) {
    if (stretch.shift == kStoredShift) {
      continue;
    }
    each_common_part(images, stretch, [&](int64_t part_begin, int64_t part_end) {
      trim(images, stretch, part_begin, part_end, [&](int64_t begin, int64_t end) {
        if (stretch.shift == 0) {
          set.pinned.emplace_back(begin, end);
        } else if (!fills || !is_fill(images.new_image, begin, end)) {
          set.pieces.push_back({begin - stretch.shift, end - begin, begin, 0});
        }
      });
    });
  }
  find_conflicts(set);
  set.stretches = set.pieces.size();
  set.circles = all_circles(set);
  set.part_bytes = part_bytes(bytes_to_cut(set));
  if (cut_long && !set.circles.empty()) {
    set.pieces = cut_circles(set.pieces, set.circles, set.part_bytes);
    find_conflicts(set);
    set.circles = all_circles(set);
  }
  weigh_circles(images, set);
  return set;
}

}  // namespace kelvane
