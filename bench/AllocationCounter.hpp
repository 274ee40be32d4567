// Counts the heap allocations of the benchmark process.
//
// AllocationCounter.cpp replaces the global operator new and delete for the whole benchmark
// binary (the library included); every allocation bumps two relaxed atomic counters. Benchmarks
// read the totals before and after the code they measure:
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

class AllocationScope {
  public:
    AllocationScope() noexcept : start_(allocationTotals()) {}

    std::uint64_t allocations() const noexcept {
        return allocationTotals().allocations - start_.allocations;
    }
    std::uint64_t bytes() const noexcept { return allocationTotals().bytes - start_.bytes; }

  private:
    AllocationTotals start_;
};

}  // namespace kel::bench
