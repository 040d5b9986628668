// A run's random generator, shared by CV-MATH "rand" and CV-STR "uniqueID":
// xoshiro128**, seeded from the system's entropy source on first use.
#pragma once

#include <cstdint>

struct RandomState {
  uint32_t s[4] = {0, 0, 0, 0};
  bool seeded = false;
};

uint32_t random_next(RandomState& state);
inline uint8_t random_byte(RandomState& state) { return static_cast<uint8_t>(random_next(state) >> 24); }
