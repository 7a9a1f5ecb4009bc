#pragma once

#include <stdint.h>

// Types and operations of the sample firmware. All temperatures are in hundredths of a degree.

#ifndef FIRMWARE_REVISION
#define FIRMWARE_REVISION 1
#endif

// Code that flash keeps compressed and that the start-up code expands into RAM: what runs seldom.
#define SELDOM __attribute__((section(".seldom")))

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

// Offsets may be adjusted while the controller runs.
extern struct sensor sensors[];
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

// fan.c: the voltage, 0 to 1000, for a speed of 0 to 1000.
uint32_t fan_voltage(uint32_t speed);

// crc.c: the checksum `sum` continued with four more bytes.
uint32_t crc_add(uint32_t sum, uint32_t value);

// unpack.c: expands the compressed bytes from `from` up to `end` to `to`.
void unpack(uint8_t* to, const uint8_t* from, const uint8_t* end);

// text.c
void text_print(void (*put)(char letter), const char* text);
void text_print_number(void (*put)(char letter), int32_t value);
