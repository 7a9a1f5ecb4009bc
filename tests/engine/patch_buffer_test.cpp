#include "patch_buffer.h"

#include <gtest/gtest.h>

#include "diffout.h"
#include "engine_fixture.h"
#include "engine_settings.h"
#include "image.h"
#include "substitution.h"

namespace kelvane {
namespace {

class PatchInMemory : public EngineTest {
 protected:
  static Bytes patch() {
    uint8_t* buffer = nullptr;
    uint32_t size = 0;
    get_buffer(&buffer, &size);
    return {buffer, buffer + size};
  }
};

TEST_F(PatchInMemory, HoldsAFileFromItsVersionWordOn) {
  const file_data file = {"f", nullptr, 6, 0xAABBCCDD, 0, nullptr, nullptr, 0};
  version = 1;
  uint8_t* buffer = nullptr;
  uint32_t size = 0;
  dump_to_buf(&file, &file, &buffer, &size);
  EXPECT_EQ(Bytes(buffer, buffer + size),
            joined({{1, 0, 0, 0, 0xDD, 0xCC, 0xBB, 0xAA, 0xDD, 0xCC, 0xBB, 0xAA},
                    {6, 0, 0, 0, 6, 0, 0, 0, 31, 0, 0, 0, 0, 0xC0, 0, 0, 3, 0, 0}}));
}

TEST_F(PatchInMemory, IsPutTogetherPieceByPiece) {
  const uint8_t byte = 7;
  start_buf(1);
  EXPECT_EQ(TargetIsBigEndian, 1);
  add_substitution(0x1000, 1, &byte);
  EXPECT_EQ(dump_to_buf_continue(3), 3);
  EXPECT_EQ(dump_to_buf_dbserv(5), 5);
  dump_numregions(1);
  dump_address_range(0x10, 0x20);
  dump_checksum(0xDEADBEEF);
  EXPECT_EQ(patch(), joined({{3, 0, 0, 2, 0, 1, 0, 1, 0, 0, 0x10, 0, 7},
                             {3, 0, 0, 4},
                             {0, 0, 0, 1},
                             {0, 0, 0, 0x10, 0, 0, 0, 0x20},
                             {0xDE, 0xAD, 0xBE, 0xEF}}));
  start_buf(0);
  EXPECT_EQ(patch(), Bytes{});
}

}  // namespace
}  // namespace kelvane
