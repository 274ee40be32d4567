// kel::DispatchTime — a point on the monotonic clock, for deadlines of delayed work.
//
// DispatchTime::now() + 1.5 is one and a half seconds from now. Values are ordered and may be
// compared and subtracted freely from any thread.
#pragma once

#include <chrono>

namespace kel {

class DispatchTime {
  public:
    using Clock = std::chrono::steady_clock;

    constexpr DispatchTime() = default;
    constexpr explicit DispatchTime(Clock::time_point point) : point_(point) {}

    static DispatchTime now() { return DispatchTime(Clock::now()); }
    // A deadline that never comes.
    static constexpr DispatchTime distantFuture() { return DispatchTime(Clock::time_point::max()); }

    constexpr Clock::time_point timePoint() const { return point_; }

    // Adds or subtracts seconds (fractions allowed).
    friend DispatchTime operator+(DispatchTime time, double seconds) {
        return DispatchTime(time.point_ + std::chrono::duration_cast<Clock::duration>(
                                              std::chrono::duration<double>(seconds)));
    }
    friend DispatchTime operator-(DispatchTime time, double seconds) { return time + (-seconds); }
    template <class Rep, class Period>
    friend DispatchTime operator+(DispatchTime time, std::chrono::duration<Rep, Period> d) {
        return DispatchTime(time.point_ + std::chrono::duration_cast<Clock::duration>(d));
    }

    friend constexpr auto operator<=>(DispatchTime, DispatchTime) = default;

  private:
    Clock::time_point point_{};
};

}  // namespace kel
