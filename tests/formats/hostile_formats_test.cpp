// Small good files of each format, every length cut and every byte changed: each is read or
// refused, with nothing touched that isn't the reader's.

#include <filesystem>

#include "bytes.h"
#include "format_walks.h"
#include "reset_state.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

namespace kelvane {
namespace {

using Walk = void (*)(const Bytes&);

struct Format {
  const char* corpus;
  Walk walk;
};

const Format kFormats[] = {
    {"aout", [](const Bytes& bytes) { walk_aout(stream_of(bytes.data(), bytes.size()).get()); }},
    {"coff",
     [](const Bytes& bytes) {
       if (!bytes.empty()) {
         walk_coff(stream_of(bytes.data() + 1, bytes.size() - 1).get(), bytes[0]);
       }
     }},
    {"pe", [](const Bytes& bytes) { walk_pe(stream_of(bytes.data(), bytes.size()).get()); }},
};

void walk_or_refuse(const Format& format, const Bytes& bytes) {
  try {
    format.walk(bytes);
  } catch (const EndedRun& end) {
    EXPECT_EQ(end.status, 1);
  }
}

class HostileFormats : public testing::TestWithParam<Format> {};

TEST_P(HostileFormats, EveryDamageIsReadOrRefused) {
  reset_all_state();
  const Quiet quiet;
  uint32_t files = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(std::string(KELVANE_CORPUS) + "/" + GetParam().corpus)) {
    const Bytes good = bytes_of(read_whole_file(entry.path()));
    // A long one is only text between its headers.
    if (good.size() > 600) {
      continue;
    }
    ++files;
    for (size_t i = 0; i < good.size(); ++i) {
      walk_or_refuse(GetParam(), Bytes(good.begin(), good.begin() + static_cast<ptrdiff_t>(i)));
      const uint8_t before = good[i];
      for (const int after : {before ^ 0x01, before ^ 0x10, before ^ 0x80, 255 - before, 0, 0x7F}) {
        Bytes damaged = good;
        damaged[i] = static_cast<uint8_t>(after);
        walk_or_refuse(GetParam(), damaged);
      }
    }
  }
  EXPECT_GE(files, 4U);
}

INSTANTIATE_TEST_SUITE_P(Formats, HostileFormats, testing::ValuesIn(kFormats),
                         [](const auto& row) { return std::string(row.param.corpus); });

}  // namespace
}  // namespace kelvane
