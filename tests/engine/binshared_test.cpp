#include "binshared.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "binshared_internal.h"
#include "captured_run.h"
#include "engine_fixture.h"
#include "engine_settings.h"
#include "indgen_memory.h"

namespace kelvane {
namespace {

Bytes written() {
  return {get_output_buf(), get_output_buf() + get_output_buf_size()};
}

class OutputBuffer : public EngineTest {
 protected:
  OutputBuffer() { new_output_buf(); }
};

TEST_F(OutputBuffer, WritesNumbersInTheTargetsByteOrder) {
  TargetIsBigEndian = 7;  // any value but 0 is big-endian
  put_word(0x01020304);
  put_half(0x12345);
  put_byte(0x1FE);
  TargetIsBigEndian = 0;
  put_word(0x01020304);
  put_half(0x12345);
  put_byte(0x1FE);
  EXPECT_EQ(written(), (Bytes{1, 2, 3, 4, 0x23, 0x45, 0xFE, 4, 3, 2, 1, 0x45, 0x23, 0xFE}));
}

TEST_F(OutputBuffer, AlwaysKeepsOneByteFree) {
  EXPECT_EQ(outbuf_alloc, 4096U);
  const Bytes many(4095, 'a');
  put_data(many.data(), 4095);
  EXPECT_EQ(outbuf_alloc, 4096U);
  put_byte('b');
  EXPECT_EQ(outbuf_alloc, 8192U);
  EXPECT_EQ(get_output_buf_size(), 4096U);
  EXPECT_EQ(written()[4094], 'a');
  EXPECT_EQ(written()[4095], 'b');
}

TEST_F(OutputBuffer, StepsBackAndForthLikeAFile) {
  const Bytes hundred(100, 'x');
  put_data(hundred.data(), 100);
  set_pos(0);
  put_word(0);
  EXPECT_EQ(get_pos(), 4U);
  EXPECT_EQ(get_output_buf_size(), 100U);
  set_pos(9000);  // beyond the room too
  put_byte(1);
  EXPECT_EQ(get_output_buf_size(), 9001U);
  const Bytes all = written();
  EXPECT_EQ(all[99], 'x');
  EXPECT_EQ(Bytes(all.begin() + 100, all.begin() + 9000), Bytes(8900, 0));
}

TEST_F(OutputBuffer, LendsTheBytesBackAndRefusesToReadBeyondThem) {
  const Bytes text = bytes_of("abcdef");
  put_data(text.data(), 6);
  set_pos(1);
  const gen_ptr<uint8_t> read(get_data(3));
  EXPECT_EQ(Bytes(read.get(), read.get() + 3), bytes_of("bcd"));
  EXPECT_EQ(get_pos(), 4U);
  EXPECT_EQ(get_data(0), nullptr);
  const CapturedRun run = capture([] { get_data(3); });
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.errors, "fatal: could not read 3 bytes from file: end of file\n");
}

TEST_F(OutputBuffer, WritesToAStreamAndReadsItBack) {
  const file_ptr stream(std::tmpfile());
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(set_output_file(stream.get()), stream.get());
  EXPECT_EQ(get_output_buf(), nullptr);
  put_word(0x01020304);
  EXPECT_EQ(get_pos(), 4U);
  set_pos(1);
  const gen_ptr<uint8_t> read(get_data(2));
  EXPECT_EQ(Bytes(read.get(), read.get() + 2), (Bytes{3, 2}));
  const CapturedRun run = capture([] { get_data(9); });
  EXPECT_EQ(run.errors, "fatal: could not read 9 bytes from file: end of file\n");
}

TEST_F(OutputBuffer, TellsWhatTheStreamRefusesWhenItIsAsked) {
  const file_ptr full(std::fopen("/dev/full", "w+"));
  ASSERT_NE(full, nullptr);
  set_output_file(full.get());
  const Bytes many(100000, 0);
  EXPECT_FALSE(output_failed());
  put_data(many.data(), 100000);  // and nobody is told
  EXPECT_TRUE(output_failed());
  EXPECT_EQ(errno, ENOSPC);
  std::clearerr(full.get());
  EXPECT_FALSE(output_failed());
  put_byte(1);
  set_pos(0);
  EXPECT_TRUE(output_failed());

  const file_ptr write_only(std::fopen("/dev/null", "w"));
  set_output_file(write_only.get());
  EXPECT_EQ(capture([] { get_data(5); }).errors,
            "fatal: could not read 5 bytes from file: Bad file descriptor\n");
}

TEST_F(OutputBuffer, ReversesBytesInPlace) {
  Bytes odd = {1, 2, 3};
  charreverse(odd.data(), 3);
  EXPECT_EQ(odd, (Bytes{3, 2, 1}));
  charreverse(odd.data(), 1);
  charreverse(odd.data(), 0);
  EXPECT_EQ(odd, (Bytes{3, 2, 1}));
}

}  // namespace
}  // namespace kelvane
