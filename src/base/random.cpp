// A run's random generator: xoshiro128** seeded from getrandom().
#include "base/random.h"

#include <sys/random.h>

#include <ctime>
#include <unistd.h>

namespace {

void seed(RandomState& g) {
  uint32_t* s = g.s;
  if (getrandom(s, 4 * sizeof *s, 0) != static_cast<ssize_t>(4 * sizeof *s)) {
    // No entropy source: the clock and the process id still differ per run.
    uint64_t seed = static_cast<uint64_t>(std::time(nullptr)) * 0x9E3779B97F4A7C15ull ^ ::getpid();
    for (int i = 0; i < 4; i++) {
      seed += 0x9E3779B97F4A7C15ull;
      uint64_t z = seed;
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
      s[i] = static_cast<uint32_t>(z ^ (z >> 31));
    }
  }
  if (!(s[0] | s[1] | s[2] | s[3])) s[0] = 1;  // the all-zero state never leaves zero
  g.seeded = true;
}

uint32_t rotl(uint32_t x, int k) { return (x << k) | (x >> (32 - k)); }

}  // namespace

uint32_t random_next(RandomState& g) {
  if (!g.seeded) seed(g);
  uint32_t* s = g.s;
  uint32_t result = rotl(s[1] * 5, 7) * 9;
  uint32_t t = s[1] << 9;
  s[2] ^= s[0];
  s[3] ^= s[1];
  s[1] ^= s[2];
  s[0] ^= s[3];
  s[2] ^= t;
  s[3] = rotl(s[3], 11);
  return result;
}
