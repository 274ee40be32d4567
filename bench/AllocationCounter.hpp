// Counts the heap allocations of the benchmark process.
//
// AllocationCounter.cpp replaces the global operator new and delete for the whole benchmark
// binary (the library included). While at least one AllocationScope is open, every allocation
// bumps two relaxed atomic counters; otherwise an allocation costs one relaxed load more than
// malloc, so timing benchmarks are not skewed by the counting. Benchmarks open a scope around
// the code they measure:
//
//   kel::bench::AllocationScope scope;
//   ... code ...
//   scope.allocations(), scope.bytes()
//
// Thread rules: counters are process-wide atomics; a scope only means something when no other
// thread allocates while it is open.
#pragma once

#include <cstdint>

namespace kel::bench {

struct AllocationTotals {
    std::uint64_t allocations = 0;
    std::uint64_t bytes = 0;
};

AllocationTotals allocationTotals() noexcept;

// Counting is on while the number of open scopes is above zero.
void beginCounting() noexcept;
void endCounting() noexcept;

class AllocationScope {
  public:
    AllocationScope() noexcept {
        beginCounting();
        start_ = allocationTotals();
    }
    ~AllocationScope() { endCounting(); }
    AllocationScope(const AllocationScope&) = delete;
    AllocationScope& operator=(const AllocationScope&) = delete;

    std::uint64_t allocations() const noexcept {
        return allocationTotals().allocations - start_.allocations;
    }
    std::uint64_t bytes() const noexcept { return allocationTotals().bytes - start_.bytes; }

  private:
    AllocationTotals start_;
};

}  // namespace kel::bench
