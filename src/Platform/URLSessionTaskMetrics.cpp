#include "kel/Platform/URLSessionTaskMetrics.hpp"

#include <ctime>

namespace kel {

namespace {

std::string utcText(Date date) {
    std::time_t seconds =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(date));
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char buffer[40];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &parts);
    return buffer;
}

}  // namespace

std::string DateInterval::description() const {
    return utcText(start) + " to " + utcText(end());
}

}  // namespace kel
