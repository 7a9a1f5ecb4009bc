#include "controller.h"

#define LOG_DEPTH 32U

struct entry {
  uint32_t serial;
  uint32_t sensor;
  int32_t value;
  enum event event;
};

static struct entry entries[LOG_DEPTH];
static uint32_t serial;

static const char* const event_texts[EVENT_KINDS] = {
    [EVENT_START] = "controller started",
    [EVENT_TOO_COLD] = "temperature below the limit",
    [EVENT_TOO_HOT] = "temperature above the limit",
#if FIRMWARE_REVISION >= 2
    [EVENT_SENSOR_LOST] = "sensor does not answer, its last value is kept",
    [EVENT_SENSOR_BACK] = "sensor answers again",
#else
    [EVENT_SENSOR_LOST] = "sensor does not answer",
#endif
};

void log_event(enum event event, uint32_t sensor, int32_t value) {
  struct entry* const entry = &entries[serial % LOG_DEPTH];
  entry->serial = serial++;
  entry->sensor = sensor;
  entry->value = value;
  entry->event = event;
}

uint32_t log_checksum(void) {
  uint32_t sum = 0;
  for (uint32_t place = 0; place < LOG_DEPTH; ++place) {
    const struct entry* const entry = &entries[place];
    sum = crc_add(sum, entry->serial);
    sum = crc_add(sum, entry->sensor);
    sum = crc_add(sum, (uint32_t)entry->value);
    sum = crc_add(sum, (uint32_t)entry->event);
  }
  return sum;
}

SELDOM void log_print(void (*put)(char letter)) {
  const uint32_t first = serial > LOG_DEPTH ? serial - LOG_DEPTH : 0;
  for (uint32_t number = first; number < serial; ++number) {
    const struct entry* const entry = &entries[number % LOG_DEPTH];
    text_print_number(put, (int32_t)entry->serial);
    text_print(put, ": ");
    text_print(put, sensors[entry->sensor].name);
    text_print(put, ": ");
    text_print(put, event_texts[entry->event]);
    text_print(put, " (");
    text_print_number(put, entry->value);
    text_print(put, ")\r\n");
  }
}
