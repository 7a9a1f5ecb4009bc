#include "controller.h"

void filter_add(struct filter* filter, int32_t value) {
  filter->values[filter->next] = value;
  filter->next = (filter->next + 1U) % FILTER_DEPTH;
  if (filter->filled < FILTER_DEPTH) {
    ++filter->filled;
  }
}

#if FIRMWARE_REVISION >= 2
// The middle of three neighbours takes single wrong values out before they reach the average.
static int32_t median(int32_t first, int32_t second, int32_t third) {
  const int32_t low = first < second ? first : second;
  const int32_t high = first < second ? second : first;
  if (third < low) {
    return low;
  }
  return third > high ? high : third;
}

static int32_t settled(const struct filter* filter, uint32_t place) {
  const uint32_t before = (place + FILTER_DEPTH - 1U) % FILTER_DEPTH;
  const uint32_t behind = (place + 1U) % FILTER_DEPTH;
  if (filter->filled < FILTER_DEPTH) {
    return filter->values[place];
  }
  return median(filter->values[before], filter->values[place], filter->values[behind]);
}
#else
static int32_t settled(const struct filter* filter, uint32_t place) {
  return filter->values[place];
}
#endif

int32_t filter_value(const struct filter* filter) {
  int32_t sum = 0;
  if (filter->filled == 0) {
    return 0;
  }
  for (uint32_t place = 0; place < filter->filled; ++place) {
    sum += settled(filter, place);
  }
  return sum / (int32_t)filter->filled;
}
