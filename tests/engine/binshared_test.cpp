#include "binshared.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "bd_checksum.h"
#include "binshared_internal.h"
#include "engine_steps.h"
#include "indgen_memory.h"
#include "patch_buffer.h"

namespace kelvane {
namespace {

class OutputBuffer : public EngineTest {};

TEST_F(OutputBuffer, DoesInMemoryWhatTheTableSays) {
  std::list<Bytes> kept;
  using Text = const char*;
  const auto get = [](uint32_t count) {
    const gen_ptr<uint8_t> read(get_data(count));
    return read == nullptr ? kNullText : hex_of({read.get(), read.get() + count});
  };
  const auto reverse = [](Data data) {
    charreverse(data.bytes.data(), static_cast<uint32_t>(data.bytes.size()));
    return hex_of(data.bytes);
  };
  const auto patch = [] {
    uint8_t* buffer = nullptr;
    uint32_t size = 0;
    get_buffer(&buffer, &size);
    return hex_of({buffer, buffer + size});
  };
  const auto checksum = [](uint32_t sum, Data data) {
    bd_checksum(data.bytes.data(), static_cast<uint32_t>(data.bytes.size()), &sum);
    return in_hex(sum);
  };
  // clang-format off
  go_through(KELVANE_TABLES "binshared.table",
             {{"put_word", [](uint32_t value) { put_word(value); return ""; }},
              {"put_half", [](uint32_t value) { put_half(value); return ""; }},
              {"put_byte", [](uint32_t value) { put_byte(value); return ""; }},
              {"put_data", [](Data data) { put_data(data.bytes.data(), static_cast<uint32_t>(data.bytes.size())); return ""; }},
              {"set_pos", [](uint32_t position) { set_pos(position); return ""; }},
              {"get_pos", [](Text) { return get_pos(); }},
              {"room", [](Text) { return outbuf_alloc; }},
              {"size", [](Text) { return get_output_buf_size(); }},
              {"bytes_at", [](uint32_t at, uint32_t count) { return hex_of({get_output_buf() + at, get_output_buf() + at + count}); }},
              {"start_buf", [](int32_t big_endian) { start_buf(big_endian); return ""; }},
              KELVANE_OPERATION(dump_to_buf_continue), KELVANE_OPERATION(dump_to_buf_dbserv),
              {"dump_numregions", [](uint32_t n) { dump_numregions(n); return ""; }},
              {"dump_address_range", [](uint32_t start, uint32_t end) { dump_address_range(start, end); return ""; }},
              {"dump_checksum", [](uint32_t sum) { dump_checksum(sum); return ""; }},
              {"patch", [=](Text) { return patch(); }},
              {"checksum", checksum},
              {"get_data", get},
              {"charreverse", reverse}},
             &kept);
  // clang-format on
}

TEST_F(OutputBuffer, WritesToAStreamAndReadsItBack) {
  new_output_buf();
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

}  // namespace
}  // namespace kelvane
