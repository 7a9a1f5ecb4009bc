#include "indzip.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "plain_encoder.h"
#include "writer_reset.h"

namespace kelvane {
namespace {

using Bytes = std::vector<uint8_t>;

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
    ASSERT_EQ(expand(stream, source.size(), ExpandEnd::complete), source);
  }

  PlainEncoder plain;
};

TEST_F(Codec, EncodesTheSmallCasesToTheseBytes) {
  EXPECT_EQ(encode({}), Bytes{});
  EXPECT_EQ(encode(letters("A")), (Bytes{0x01, 0x41}));
  EXPECT_EQ(encode(letters("abcabcabcabc")), (Bytes{0x07, 0x61, 0x62, 0x63, 0xEE, 0xF6}));
  EXPECT_EQ(encode(Bytes(18, 0)), (Bytes{0x00, 0xDC, 0xFF}));
  EXPECT_EQ(encode(Bytes(20, 0)), (Bytes{0x06, 0xDC, 0xFF, 0x00, 0x00}));
  Encode(nullptr, 0, collect);
}

TEST_F(Codec, HandsOnEachByteAsASignedValue) {
  encode({0x80, 0x7F, 0xFF});
  EXPECT_EQ(handed_on, (std::vector<int32_t>{7, -128, 127, -1}));
}

TEST_F(Codec, PutsNoEmptyGroupBehindAFullOne) {
  EXPECT_EQ(encode(letters("abcdefgh")),
            (Bytes{0xFF, 0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68}));
  EXPECT_EQ(encode(letters("abcdefghi")),
            (Bytes{0xFF, 0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x01, 0x69}));
}

TEST_F(Codec, ChoosesBetweenEqualMatchesByWhatTheCallBeforeLeft) {
  const Bytes piece = letters("bbbbabbb");
  EXPECT_EQ(encode(piece), (Bytes{0x05, 0x62, 0xEE, 0xF0, 0x61, 0xEE, 0xF0}));
  encode(letters("abbaabbbabb"));
  EXPECT_EQ(encode(piece), (Bytes{0x05, 0x62, 0xEE, 0xF0, 0x61, 0xEF, 0xF0}));
  reset_indzip();
  EXPECT_EQ(encode(piece), (Bytes{0x05, 0x62, 0xEE, 0xF0, 0x61, 0xEE, 0xF0}));
}

TEST_F(Codec, KeepsTheMirroredSlotsFromTheCallBeforeToo) {
  encode(letters("aababaaaabababaabbaaaabbabbbababaaaabbbbabbaaa"));
  EXPECT_EQ(encode(letters("baabbabbbabbabb")),
            (Bytes{0x1F, 0x62, 0x61, 0x61, 0x62, 0x62, 0xF0, 0xF0, 0xF2, 0xF1, 0xF7, 0xF0}));
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
  EXPECT_EQ(expand(encode(piece), piece.size(), ExpandEnd::complete), piece);
  EXPECT_EQ(encode(piece), stream);
}

TEST(Expansion, TakesSlotsNeverWrittenAsZerosAndItsOwnPositionAsAWholeRingBack) {
  // Position 0 lies far behind the output; length 3.
  EXPECT_EQ(expand({0x01, 0x41, 0x00, 0x00}, 4, ExpandEnd::complete), (Bytes{0x41, 0, 0, 0}));
  // Position 0xFEE at the very start is 4096 back.
  EXPECT_EQ(expand({0x00, 0xEE, 0xF1}, 4, ExpandEnd::complete), (Bytes{0, 0, 0, 0}));
  // Two zeros of the fill, then the output's own first byte.
  EXPECT_EQ(expand({0x01, 0x41, 0xEC, 0xF0}, 4, ExpandEnd::complete), (Bytes{0x41, 0, 0, 0x41}));
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
  EXPECT_EQ(expand(stream, output.size(), ExpandEnd::complete), output);
}

TEST(Expansion, FillsItsRoomAndTellsWhatHasNone) {
  const Bytes stream = {0x03, 0x41, 0x42, 0xEE, 0xF2};  // A B, then 5 bytes from A on
  EXPECT_EQ(expand(stream, 7, ExpandEnd::complete), letters("ABABABA"));
  EXPECT_EQ(expand(stream, 6, ExpandEnd::overrun), letters("ABABAB"));
  EXPECT_EQ(expand(stream, 2, ExpandEnd::overrun), letters("AB"));
  EXPECT_EQ(expand(stream, 1, ExpandEnd::overrun), letters("A"));
  EXPECT_EQ(expand(stream, 0, ExpandEnd::overrun), Bytes{});
  EXPECT_EQ(expand({}, 0, ExpandEnd::complete), Bytes{});
  EXPECT_EQ(expand_bounded(nullptr, 9, stream.data(), stream.size()).end, ExpandEnd::overrun);
}

TEST(Expansion, TellsAnEndInsideAnItem) {
  EXPECT_EQ(expand({0x01}, 9, ExpandEnd::cut_item), Bytes{});
  EXPECT_EQ(expand({0x01, 0x41, 0xEE}, 9, ExpandEnd::cut_item), letters("A"));
  EXPECT_EQ(expand({0x01, 0x41}, 9, ExpandEnd::complete), letters("A"));
}

TEST(Expansion, OfATrustedStreamGivesItsDestination) {
  const Bytes stream = {0x07, 0x61, 0x62, 0x63, 0xEE, 0xF6};
  Bytes output(13, 0xEE);
  EXPECT_EQ(__qvr_decompress(output.data(), stream.data(), 6), output.data());
  EXPECT_EQ(output, letters("abcabcabcabc\xEE"));
}

TEST(Expansion, OfNothingWritesNothing) {
  Bytes output(1, 0xEE);
  const uint8_t flags = 1;
  EXPECT_EQ(__qvr_decompress(output.data(), &flags, 0), output.data());
  EXPECT_EQ(__qvr_decompress(output.data(), nullptr, 0), output.data());
  EXPECT_EQ(__qvr_decompress(output.data(), nullptr, 7), output.data());
  EXPECT_EQ(__qvr_decompress(output.data(), &flags, 1), output.data());  // cut behind the flags
  EXPECT_EQ(__qvr_decompress(nullptr, &flags, 1), nullptr);
  EXPECT_EQ(output, Bytes(1, 0xEE));
}

}  // namespace
}  // namespace kelvane
