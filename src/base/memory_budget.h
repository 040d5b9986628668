// The memory one request may hold, counted where memory is handed out.
//
// The program's allocation functions (operator new and delete in all their
// forms, and the functions GMP and MPFR allocate with) count every block
// against the budget in force on the thread, by the block's usable size.
// An allocation of the engine's own that would take the count past the
// limit is refused as an exhausted system would refuse it: std::bad_alloc,
// caught where the run began.  Counting at the allocator sees every list, string, hash, buffer
// and page at once, whichever code grows them, so no growth path can be
// missed; a bound per list could not see eight lists of a million each.
#pragma once

#include <cstdint>

struct MemoryBudget {
  int64_t limit = 0;      // bytes; 0 counts without a bound
  int64_t held = 0;       // bytes allocated and not yet freed while in force
  int64_t peak = 0;       // the highest `held`
  bool exceeded = false;  // an allocation was refused for the limit
};

// Puts `budget` in force on this thread while the scope lives; the budget
// in force before comes back when it ends.
struct MemoryBudgetScope {
  explicit MemoryBudgetScope(MemoryBudget* budget);
  ~MemoryBudgetScope();
  MemoryBudgetScope(const MemoryBudgetScope&) = delete;
  MemoryBudgetScope& operator=(const MemoryBudgetScope&) = delete;
  MemoryBudget* saved;
};

// While one lives, allocations past the limit are counted but not refused:
// for code that must not fail, such as a destructor that needs scratch
// memory to take a large value apart.  Allocations made while an exception
// unwinds are never refused either.
struct MemoryReleaseScope {
  MemoryReleaseScope();
  ~MemoryReleaseScope();
  MemoryReleaseScope(const MemoryReleaseScope&) = delete;
  MemoryReleaseScope& operator=(const MemoryReleaseScope&) = delete;
};

// The budget in force on this thread, or null.
MemoryBudget* memory_budget_in_force();
// Refuses, as an allocation past the limit is refused (std::bad_alloc),
// work that is about to take `bytes` more: for libraries such as GMP whose
// own allocations are counted but cannot be refused.
void memory_budget_expect(uint64_t bytes);
