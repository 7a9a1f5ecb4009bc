#include "controller.h"

struct sensor sensors[] = {
    {"inlet", 0, 12, 500, 4500},  {"outlet", 1, -8, 500, 6000},
#if FIRMWARE_REVISION >= 2
    {"motor", 2, 0, -1000, 9500}, {"board", 3, 4, -1000, 8500}, {"outside air", 6, 25, -4000, 6000},
#else
    {"motor", 2, 0, -1000, 9000},
    {"board", 3, 4, -1000, 8500},
#endif
};
const uint32_t sensor_count = sizeof(sensors) / sizeof(sensors[0]);
