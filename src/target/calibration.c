#include "controller.h"

// The thermistor's curve, sampled every 128 steps of the converter, highest temperature first.
// clang-format off
static const int32_t curve[33] = {
    15000, 12840, 11260, 10050, 9080, 8270, 7580, 6980, 6450, 5970, 5530,
    5130,  4750,  4400,  4070,  3750, 3450, 3160, 2870, 2600, 2330, 2060,
#if FIRMWARE_REVISION >= 2
    1795,  1530,  1255,  980,   690,  390,  60,   -310, -760, -1370, -2600,
#else
    1790,  1520,  1250,  970,   680,  380,  50,   -320, -770, -1380, -2610,
#endif
};
// clang-format on

int32_t temperature_of(uint32_t raw) {
  const uint32_t value = raw & 0xFFFU;
  const uint32_t place = value / 128U;
  const int32_t rest = (int32_t)(value % 128U);
  return curve[place] + (curve[place + 1U] - curve[place]) * rest / 128;
}
