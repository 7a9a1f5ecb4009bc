#include "round_trip.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iomanip>
#include <sstream>

// Every pair comes from the kind and the number of its round alone, so a round can be repeated.
namespace kelvane {
namespace {

uint32_t rounds_of_a_kind() {
  const char* const wanted = std::getenv("KELVANE_ROUNDS");
  return wanted != nullptr ? static_cast<uint32_t>(std::strtoul(wanted, nullptr, 10))
                           : KELVANE_ROUNDS_OF_A_KIND;
}

template <size_t n>
int32_t one_of(const int32_t (&values)[n], Random& random) {
  return values[random.below(n)];
}

// The flags go through all their combinations as the rounds go by.
PatchOptions options_of(uint32_t round, Random& random) {
  PatchOptions options;
  options.patch_version = (round & 1U) != 0 ? 1 : 0;
  options.big_endian = (round & 2U) != 0;
  options.increments = (round & 4U) != 0;
  options.fill = options.patch_version > 0 && (round & 8U) != 0;
  options.compression = options.patch_version > 0 && (round & 16U) != 0;
  options.splicing = (round & 32U) == 0;
  options.relative = (round & 64U) == 0;
  options.min_percent = one_of({10, 0, 60, -200}, random);  // -200 takes whatever comes out
  options.min_length = one_of({50, 1, 3, 20, 1000}, random);
  options.blocksize =
      static_cast<uint16_t>(random.below(2) == 0 ? one_of({1, 2, 4, 8, 9, 10, 20, 21, 100}, random)
                                                 : 1 + static_cast<int32_t>(random.below(200)));
  options.max_scan = random.below(2) == 0 ? one_of({1, 2, 10, 1000, 100000}, random)
                                          : static_cast<int32_t>(random.below(300));
  return options;
}

std::string in_hex(const Bytes& image) {
  std::ostringstream text;
  text << std::dec << image.size() << " bytes:" << std::hex << std::setfill('0');
  for (const uint8_t byte : image) {
    text << ' ' << std::setw(2) << unsigned{byte};
  }
  return text.str();
}

void cut(Bytes& image, size_t position, size_t size) {
  const auto from = image.begin() + static_cast<std::ptrdiff_t>(std::min(position, image.size()));
  image.erase(
      from, from + std::min<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(size), image.end() - from));
}

// Takes stretches out of both images or one, larger ones first, as long as the fault stays.
ImagePair minimised(ImagePair pair, const PatchOptions& options) {
  const size_t longest = std::max(pair.old_image.size(), pair.new_image.size());
  for (size_t size = longest / 2 + 1; size > 0; size /= 2) {
    for (size_t left = longest / size + 1; left > 0; --left) {
      for (const auto& [in_old, in_new] : {std::pair{1, 1}, {1, 0}, {0, 1}}) {
        ImagePair candidate = pair;
        cut(candidate.old_image, (left - 1) * size, size * static_cast<size_t>(in_old));
        cut(candidate.new_image, (left - 1) * size, size * static_cast<size_t>(in_new));
        if (fault_in_round_trip(candidate, options).has_value()) {
          pair = candidate;
        }
      }
    }
  }
  return pair;
}

// The failure in a small pair that shows it.
std::string report(const ImagePair& pair, const PatchOptions& options) {
  const ImagePair small = minimised(pair, options);
  return fault_in_round_trip(small, options).value_or("it does not happen again") + "\noptions " +
         describe(options) + "\nold " + in_hex(small.old_image) + "\nnew " +
         in_hex(small.new_image);
}

class RoundTrip : public testing::TestWithParam<PairKind> {};

TEST_P(RoundTrip, GivesTheNewImageByteForByte) {
  const PairKind kind = GetParam();
  for (uint32_t round = 0; round < rounds_of_a_kind(); ++round) {
    Random random(1000003U * static_cast<uint32_t>(kind) + round);
    const ImagePair pair = make_pair_of(kind, random);
    const PatchOptions options = options_of(round, random);
    if (fault_in_round_trip(pair, options).has_value()) {
      FAIL() << "round " << round << ": " << report(pair, options);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllKinds, RoundTrip, testing::ValuesIn(kAllPairKinds),
                         [](const auto& tested) { return name_of(tested.param); });

}  // namespace
}  // namespace kelvane
