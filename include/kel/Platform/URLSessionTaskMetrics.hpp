// kel::URLSessionTaskMetrics — when the phases of one task happened.
//
// taskInterval runs from the task's resume() to the moment its transfer ended. Each transaction
// (one per task here: redirects are followed inside the one transfer) holds the dates taken
// from libcurl's transfer times: fetchStartDate when libcurl started the transfer, then name
// lookup, connection, TLS, requestStartDate (the request about to be sent), responseStartDate
// (the first byte of the response) and responseEndDate. A phase that did not happen (no lookup
// for a literal address, no TLS, no connection for a reused one) has no date.
//
// Thread rules: immutable once made; may be read from any thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "kel/Export.hpp"

namespace kel {

using Date = std::chrono::system_clock::time_point;

struct KEL_EXPORT DateInterval {
    Date start;
    std::chrono::duration<double> duration{0.0};

    Date end() const { return start + std::chrono::duration_cast<Date::duration>(duration); }
    // "<start> to <end>", each as "yyyy-MM-dd HH:mm:ss +0000" in UTC.
    std::string description() const;
};

struct URLSessionTaskTransactionMetrics {
    std::optional<Date> fetchStartDate;
    std::optional<Date> domainLookupStartDate;
    std::optional<Date> domainLookupEndDate;
    std::optional<Date> connectStartDate;
    std::optional<Date> secureConnectionStartDate;
    std::optional<Date> secureConnectionEndDate;
    std::optional<Date> connectEndDate;
    std::optional<Date> requestStartDate;
    std::optional<Date> responseStartDate;
    std::optional<Date> responseEndDate;
    std::string networkProtocolName;  // "http/1.1", "h2", ...
    bool isReusedConnection = false;
};

struct URLSessionTaskMetrics {
    std::vector<URLSessionTaskTransactionMetrics> transactionMetrics;
    DateInterval taskInterval;
    int redirectCount = 0;
};

}  // namespace kel
