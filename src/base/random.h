// The run's random generator, shared by CV-MATH "rand" and CV-STR "uniqueID".
#pragma once

#include <cstdint>

// Seeded once per run from the system's entropy source.
uint32_t math_random();
uint8_t random_byte();
