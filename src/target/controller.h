#pragma once

#include <stdint.h>

// Types and operations of the sample firmware. All temperatures are in hundredths of a degree.

#ifndef FIRMWARE_REVISION
#define FIRMWARE_REVISION 1
#endif

enum event {
  EVENT_START,
  EVENT_TOO_COLD,
  EVENT_TOO_HOT,
  EVENT_SENSOR_LOST,
#if FIRMWARE_REVISION >= 2
  EVENT_SENSOR_BACK,
#endif
  EVENT_KINDS
};

struct sensor {
  const char* name;
  uint32_t channel;
  int32_t offset;  // added to what the converter says
  int32_t low;     // below it is too cold
  int32_t high;    // above it is too hot
};

extern const struct sensor sensors[];
extern const uint32_t sensor_count;

// calibration.c: the temperature that belongs to a converter's value of 12 bits.
int32_t temperature_of(uint32_t raw);

// filter.c: one smoothed value out of the last ones.
#define FILTER_DEPTH 8
struct filter {
  int32_t values[FILTER_DEPTH];
  uint32_t next;
  uint32_t filled;
};
void filter_add(struct filter* filter, int32_t value);
int32_t filter_value(const struct filter* filter);

// event_log.c: the last events, with a checksum, in RAM.
void log_event(enum event event, uint32_t sensor, int32_t value);
uint32_t log_checksum(void);
void log_print(void (*put)(char letter));

// text.c
void text_print(void (*put)(char letter), const char* text);
void text_print_number(void (*put)(char letter), int32_t value);
