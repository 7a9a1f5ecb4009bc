#include "controller.h"

// The control loop: reads every sensor once a tick, smooths it, drives the fan and logs what is
// wrong.

#define CONVERTER ((volatile uint32_t*)0x40012400U)
#define FAN (*(volatile uint32_t*)0x40000034U)
#define SERIAL_STATUS (*(volatile uint32_t*)0x40013800U)
#define SERIAL_DATA (*(volatile uint32_t*)0x40013804U)
#define SENSOR_LOST 0xFFFU
#define MOST_SENSORS 8U

static struct filter filters[MOST_SENSORS];
static uint8_t lost[MOST_SENSORS];
static volatile uint32_t ticks;
static uint32_t fan_speed = 100;

void control_loop(void);
void tick_handler(void);

void tick_handler(void) {
  ++ticks;
}

static void put_letter(char letter) {
  while ((SERIAL_STATUS & 0x80U) == 0) {
  }
  SERIAL_DATA = (uint32_t)letter;
}

static void check_limits(uint32_t place, int32_t value) {
  const struct sensor* const sensor = &sensors[place];
  if (value < sensor->low) {
    log_event(EVENT_TOO_COLD, place, value);
  } else if (value > sensor->high) {
    log_event(EVENT_TOO_HOT, place, value);
  }
}

static void read_sensor(uint32_t place) {
  const uint32_t raw = CONVERTER[sensors[place].channel] & 0xFFFU;
  if (raw == SENSOR_LOST) {
    if (lost[place] == 0) {
      log_event(EVENT_SENSOR_LOST, place, filter_value(&filters[place]));
    }
    lost[place] = 1;
    return;
  }
#if FIRMWARE_REVISION >= 2
  if (lost[place] != 0) {
    log_event(EVENT_SENSOR_BACK, place, temperature_of(raw));
  }
#endif
  lost[place] = 0;
  filter_add(&filters[place], temperature_of(raw) + sensors[place].offset);
  check_limits(place, filter_value(&filters[place]));
}

static void drive_fan(void) {
  int32_t hottest = -10000;
  for (uint32_t place = 0; place < sensor_count; ++place) {
    const int32_t value = filter_value(&filters[place]);
    hottest = value > hottest ? value : hottest;
  }
  if (hottest > 5000) {
    fan_speed = 1000;
#if FIRMWARE_REVISION >= 2
  } else if (hottest > 2000) {
    fan_speed = 100 + (uint32_t)(hottest - 2000) * 3U / 10U;
#else
  } else if (hottest > 2500) {
    fan_speed = 100 + (uint32_t)(hottest - 2500) * 9U / 25U;
#endif
  } else {
    fan_speed = 100;
  }
  FAN = fan_speed;
}

void control_loop(void) {
  uint32_t seen = ticks;
  log_event(EVENT_START, 0, FIRMWARE_REVISION);
  for (;;) {
    while (seen == ticks) {
    }
    seen = ticks;
    for (uint32_t place = 0; place < sensor_count; ++place) {
      read_sensor(place);
    }
    drive_fan();
    if (seen % 1000U == 0) {
      log_print(put_letter);
      text_print_number(put_letter, (int32_t)log_checksum());
    }
  }
}
