// kel::URLSessionConfiguration — the settings a URLSession is made with.
//
// timeoutIntervalForRequest is used for requests that keep the default time-out;
// timeoutIntervalForResource bounds a whole transfer (7 days by default). Timing data (the
// per-task metrics read through URLSessionTask::ks_taskMetrics) is off by default and switched
// on with setKs_timingDataEnabled(true); it is bit 0 of the timing-data options word, whose other
// bits are kept as they are.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace kel {

class URLSessionConfiguration {
  public:
    static URLSessionConfiguration defaultSessionConfiguration() { return {}; }

    double timeoutIntervalForRequest = 60.0;
    double timeoutIntervalForResource = 7 * 24 * 3600.0;
    // Header fields sent with every request that does not set them itself.
    std::vector<std::pair<std::string, std::string>> httpAdditionalHeaders;

    bool ks_timingDataEnabled() const noexcept { return (timingDataOptions_ & 1U) != 0; }
    void setKs_timingDataEnabled(bool enabled) noexcept {
        timingDataOptions_ = enabled ? (timingDataOptions_ | 1U) : (timingDataOptions_ & ~1U);
    }

    unsigned timingDataOptions() const noexcept { return timingDataOptions_; }
    void setTimingDataOptions(unsigned options) noexcept { timingDataOptions_ = options; }

  private:
    unsigned timingDataOptions_ = 0;
};

}  // namespace kel
