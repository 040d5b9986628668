// The allocation functions of the whole program, counting against the
// memory budget in force.
#include "base/memory_budget.h"

#include <gmp.h>
#include <malloc.h>

#include <cstddef>
#include <cstdlib>
#include <exception>
#include <new>

namespace {

thread_local MemoryBudget* in_force = nullptr;
thread_local int releasing = 0;

int64_t usable(void* p) { return static_cast<int64_t>(::malloc_usable_size(p)); }

// True when a block of `size` more bytes must be refused.
bool over_limit(MemoryBudget* budget, int64_t size) {
  if (!budget || budget->limit == 0 || budget->held + size <= budget->limit) return false;
  // Code that frees, and code that runs while an exception unwinds, gets
  // its memory: refusing there would end the process.
  return releasing == 0 && std::uncaught_exceptions() == 0;
}

void count(MemoryBudget* budget, int64_t bytes) {
  budget->held += bytes;
  if (budget->held > budget->peak) budget->peak = budget->held;
}

// A block of `size` bytes aligned to `alignment` (0: malloc's own), counted;
// null when refused or when the system has none.  `refused` tells which.
void* take(size_t size, size_t alignment, bool* refused) {
  MemoryBudget* budget = in_force;
  *refused = false;
  if (size == 0) size = 1;
  if (over_limit(budget, static_cast<int64_t>(size > INT64_MAX ? INT64_MAX : size))) {
    *refused = true;
    return nullptr;
  }
  void* p = nullptr;
  if (alignment <= alignof(std::max_align_t)) {
    p = std::malloc(size);
  } else if (::posix_memalign(&p, alignment, size) != 0) {
    p = nullptr;
  }
  if (p && budget) {
    int64_t bytes = usable(p);
    if (over_limit(budget, bytes)) {
      std::free(p);
      *refused = true;
      return nullptr;
    }
    count(budget, bytes);
  }
  return p;
}

void* take_or_throw(size_t size, size_t alignment) {
  bool refused;
  void* p = take(size, alignment, &refused);
  if (!p) {
    if (refused) in_force->exceeded = true;
    throw std::bad_alloc();
  }
  return p;
}

void give_back(void* p) {
  if (!p) return;
  if (MemoryBudget* budget = in_force) budget->held -= usable(p);
  std::free(p);
}

// GMP and MPFR allocate through these.  Their blocks are counted but never
// refused: an exception thrown through GMP's C frames would leave its
// temporaries behind.  The arithmetic asks memory_budget_expect() before
// an operation that can grow a number, and the next allocation of the
// engine's own is refused when GMP took the count past the limit.
void* gmp_allocate(size_t size) {
  MemoryReleaseScope counted_only;
  return take_or_throw(size, 0);
}

void* gmp_reallocate(void* p, size_t, size_t size) {
  if (!p) return gmp_allocate(size);
  MemoryBudget* budget = in_force;
  int64_t before = usable(p);
  if (size == 0) size = 1;
  void* q = std::realloc(p, size);
  if (!q) throw std::bad_alloc();
  // A block grown in place may be larger than asked; it is counted as it
  // is, and the next allocation sees the count.
  if (budget) count(budget, usable(q) - before);
  return q;
}

void gmp_free(void* p, size_t) { give_back(p); }

const bool gmp_counted = [] {
  mp_set_memory_functions(gmp_allocate, gmp_reallocate, gmp_free);
  return true;
}();

}  // namespace

MemoryBudgetScope::MemoryBudgetScope(MemoryBudget* budget) : saved(in_force) { in_force = budget; }
MemoryBudgetScope::~MemoryBudgetScope() { in_force = saved; }

MemoryReleaseScope::MemoryReleaseScope() { ++releasing; }
MemoryReleaseScope::~MemoryReleaseScope() { --releasing; }

MemoryBudget* memory_budget_in_force() { return in_force; }

void memory_budget_expect(uint64_t bytes) {
  MemoryBudget* budget = in_force;
  if (!budget || !over_limit(budget, bytes > INT64_MAX ? INT64_MAX : static_cast<int64_t>(bytes))) return;
  budget->exceeded = true;
  throw std::bad_alloc();
}

// ---------------------------------------------------------------------------
// The replaceable allocation functions

void* operator new(size_t size) { return take_or_throw(size, 0); }
void* operator new[](size_t size) { return take_or_throw(size, 0); }
void* operator new(size_t size, std::align_val_t a) { return take_or_throw(size, static_cast<size_t>(a)); }
void* operator new[](size_t size, std::align_val_t a) { return take_or_throw(size, static_cast<size_t>(a)); }

// The forms that answer null are for callers that can do without (a sort
// falls back to working in place): a refusal is not marked as exceeded.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  bool refused;
  return take(size, 0, &refused);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  bool refused;
  return take(size, 0, &refused);
}
void* operator new(size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
  bool refused;
  return take(size, static_cast<size_t>(a), &refused);
}
void* operator new[](size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
  bool refused;
  return take(size, static_cast<size_t>(a), &refused);
}

void operator delete(void* p) noexcept { give_back(p); }
void operator delete[](void* p) noexcept { give_back(p); }
void operator delete(void* p, size_t) noexcept { give_back(p); }
void operator delete[](void* p, size_t) noexcept { give_back(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { give_back(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { give_back(p); }
void operator delete(void* p, std::align_val_t) noexcept { give_back(p); }
void operator delete[](void* p, std::align_val_t) noexcept { give_back(p); }
void operator delete(void* p, size_t, std::align_val_t) noexcept { give_back(p); }
void operator delete[](void* p, size_t, std::align_val_t) noexcept { give_back(p); }
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept { give_back(p); }
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept { give_back(p); }
