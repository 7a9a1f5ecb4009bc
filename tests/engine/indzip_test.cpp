#include "indzip.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "engine_steps.h"
#include "plain_encoder.h"
#include "writer_reset.h"

namespace kelvane {
namespace {

std::vector<int32_t> handed_on;

void collect(int32_t byte) {
  handed_on.push_back(byte);
}

Bytes encode(const Bytes& source) {
  handed_on.clear();
  Encode(source.data(), static_cast<uint32_t>(source.size()), collect);
  Bytes stream;
  for (const int32_t byte : handed_on) {
    stream.push_back(static_cast<uint8_t>(byte));
  }
  return stream;
}

Bytes letters(std::string_view text) {
  return {text.begin(), text.end()};
}

// Expands with `room` bytes, which must be enough or else are filled.
Bytes expand(const Bytes& stream, size_t room, ExpandEnd expected) {
  Bytes output(room, 0xEE);
  const Expanded expanded =
      expand_bounded(output.data(), output.size(), stream.data(), stream.size());
  EXPECT_EQ(expanded.end, expected);
  EXPECT_TRUE(std::all_of(output.begin() + static_cast<std::ptrdiff_t>(expanded.size), output.end(),
                          [](uint8_t byte) { return byte == 0xEE; }));
  output.resize(expanded.size);
  return output;
}

class Codec : public testing::Test {
 protected:
  Codec() { reset_indzip(); }

  // Encodes with both encoders, each in the state that the calls before left, and expands.
  void agree(const Bytes& source) {
    const Bytes stream = encode(source);
    ASSERT_EQ(stream, plain.encode(source))
        << "piece of " << source.size() << " bytes: " << testing::PrintToString(source);
    ASSERT_EQ(expand(stream, source.size(), ExpandEnd::kComplete), source);
  }

  PlainEncoder plain;
};

TEST_F(Codec, DoesWhatTheTableSays) {
  std::list<Bytes> kept;
  const auto encode_data = [](Data data) { return hex_of(encode(data.bytes)); };
  const auto leave = [](Data data) {
    encode(data.bytes);
    return "";
  };
  const auto expand_data = [](Data data, size_t room) {
    Bytes output(room, 0xEE);
    const Expanded expanded =
        expand_bounded(output.data(), room, data.bytes.data(), data.bytes.size());
    output.resize(expanded.size);
    const char* const ends[] = {"complete:", "overrun:", "cut:"};
    return ends[static_cast<size_t>(expanded.end)] + hex_of(output);
  };
  go_through(KELVANE_TABLES "indzip.table",
             {{"encode", encode_data}, {"leave", leave}, {"expand", expand_data}}, &kept);
}

TEST_F(Codec, HandsOnEachByteAsASignedValue) {
  encode({0x80, 0x7F, 0xFF});
  EXPECT_EQ(handed_on, (std::vector<int32_t>{7, -128, 127, -1}));
}

TEST_F(Codec, AgreesWithThePlainEncoderOnEveryShortPieceOfFewLetters) {
  for (const std::string_view alphabet : {std::string_view("\0a", 2), std::string_view("abc")}) {
    const size_t longest = alphabet.size() == 2 ? 11 : 7;
    for (size_t size = 0; size <= longest; ++size) {
      std::vector<size_t> choice(size, 0);
      for (bool more = true; more && !HasFatalFailure();) {
        Bytes piece;
        for (const size_t letter : choice) {
          piece.push_back(static_cast<uint8_t>(alphabet[letter]));
        }
        agree(piece);
        // The next choice, as a number counts up.
        more = false;
        for (size_t& letter : choice) {
          letter = (letter + 1) % alphabet.size();
          if (letter != 0) {
            more = true;
            break;
          }
        }
      }
    }
  }
}

TEST_F(Codec, AgreesWithThePlainEncoderOnRandomPiecesOfManySizes) {
  std::mt19937 random(20240117);
  const std::vector<uint32_t> alphabets = {1, 2, 3, 17, 256};
  const std::vector<uint32_t> sizes = {17, 18, 19, 36, 60, 200, 1000};
  for (int32_t round = 0; round < 400 && !HasFatalFailure(); ++round) {
    const uint32_t letters_used = alphabets[random() % alphabets.size()];
    const uint8_t base = random() % 2 == 0 ? uint8_t{0} : uint8_t{0x61};
    Bytes piece(random() % (sizes[random() % sizes.size()] + 1));
    for (size_t i = 0; i < piece.size(); ++i) {
      // Some of the bytes repeat a stretch from further back.
      const bool repeats = i > 40 && (random() % 8 != 0);
      piece[i] = repeats ? piece[i - 37] : static_cast<uint8_t>(base + random() % letters_used);
    }
    agree(piece);
  }
}

TEST_F(Codec, AgreesWithThePlainEncoderRoundTheRingAndBehindIt) {
  std::mt19937 random(42);
  for (const size_t size : {4060U, 4077U, 4078U, 4079U, 4096U, 4114U, 4200U, 9000U, 30000U}) {
    for (const uint32_t alphabet : {1U, 2U, 5U, 256U}) {
      Bytes piece(size);
      for (uint8_t& byte : piece) {
        byte = static_cast<uint8_t>(random() % alphabet);
      }
      ASSERT_NO_FATAL_FAILURE(agree(piece));
      // A short piece behind a long one meets everything that it left.
      ASSERT_NO_FATAL_FAILURE(agree(Bytes(piece.begin(), piece.begin() + 30)));
    }
  }
  // Sorted strings make the deepest tree, and a run the most replacements.
  Bytes counting;
  for (uint32_t i = 0; i < 6000; ++i) {
    counting.push_back(static_cast<uint8_t>(i / 256));
    counting.push_back(static_cast<uint8_t>(i % 256));
  }
  ASSERT_NO_FATAL_FAILURE(agree(counting));
  ASSERT_NO_FATAL_FAILURE(agree(Bytes(5000, 0x20)));
}

TEST_F(Codec, AbandonedPieceDoesNotDisturbTheNext) {
  const Bytes piece = letters("one two one two one two");
  const Bytes stream = encode(piece);
  const Bytes long_piece(300, 0x33);
  EXPECT_THROW(Encode(long_piece.data(), 300, [](int32_t) { throw std::string("full"); }),
               std::string);
  EXPECT_EQ(expand(encode(piece), piece.size(), ExpandEnd::kComplete), piece);
  EXPECT_EQ(encode(piece), stream);
}

TEST(Expansion, ReachesBackAWholeRingAndNoFurther) {
  Bytes stream;
  Bytes output;
  for (uint32_t i = 0; i < 4096; ++i) {
    if (i % 8 == 0) {
      stream.push_back(0xFF);
    }
    stream.push_back(static_cast<uint8_t>(i % 251 + 1));
    output.push_back(stream.back());
  }
  // The writing index is back at 0xFEE: the oldest three bytes; then the byte just in front.
  stream.insert(stream.end(), {0x00, 0xEE, 0xF0, 0xF0, 0xF0});
  output.insert(output.end(), {1, 2, 3, 3, 3, 3});
  EXPECT_EQ(expand(stream, output.size(), ExpandEnd::kComplete), output);
}

TEST(Expansion, OfATrustedStreamGivesItsDestination) {
  const Bytes stream = {0x07, 0x61, 0x62, 0x63, 0xEE, 0xF6};
  Bytes output(13, 0xEE);
  EXPECT_EQ(__qvr_decompress(output.data(), stream.data(), 0), output.data());
  EXPECT_EQ(__qvr_decompress(output.data(), nullptr, 7), output.data());
  EXPECT_EQ(__qvr_decompress(output.data(), stream.data(), 1), output.data());  // only the flags
  EXPECT_EQ(output, Bytes(13, 0xEE));
  EXPECT_EQ(__qvr_decompress(output.data(), stream.data(), 6), output.data());
  EXPECT_EQ(output, letters("abcabcabcabc\xEE"));
  EXPECT_EQ(__qvr_decompress(nullptr, stream.data(), 1), nullptr);
  EXPECT_EQ(expand_bounded(nullptr, 9, stream.data(), 6).end, ExpandEnd::kOverrun);
}

}  // namespace
}  // namespace kelvane
