// kel::URLError — the domain and codes of URL-loading failures.
//
// A transfer that fails reaches its caller as a DomainError whose domain is URLError::domain
// and whose code is one of the codes below (the values the original platform uses). The
// user-info carries the description (DomainError::localizedDescriptionKey) and the failing URL
// (failingURLStringKey). URLError::make builds such an error; URLError::code(error) reads the
// code of an Error that is one, so callers can write
//   if (kel::URLError::code(error) == kel::URLError::timedOut) ...
//
// Thread rules: constants and pure functions.
#pragma once

#include <optional>
#include <string>

#include "kel/Export.hpp"
#include "kel/Platform/DomainError.hpp"
#include "kel/Platform/Error.hpp"

namespace kel {

struct KEL_EXPORT URLError {
    static constexpr const char* domain = "NSURLErrorDomain";
    static constexpr const char* failingURLStringKey = "NSErrorFailingURLStringKey";

    enum Code : long {
        unknown = -1,
        cancelled = -999,
        badURL = -1000,
        timedOut = -1001,
        unsupportedURL = -1002,
        cannotFindHost = -1003,
        cannotConnectToHost = -1004,
        networkConnectionLost = -1005,
        dnsLookupFailed = -1006,
        httpTooManyRedirects = -1007,
        resourceUnavailable = -1008,
        notConnectedToInternet = -1009,
        badServerResponse = -1011,
        cannotDecodeContentData = -1016,
        cannotParseResponse = -1017,
        dataLengthExceedsMaximum = -1103,
        secureConnectionFailed = -1200,
        serverCertificateUntrusted = -1202,
    };

    // A DomainError of the URL-error domain with the code's usual description and, when given,
    // the failing URL.
    static DomainError make(Code code, const std::string& failingURL = {});

    // The code of an Error holding a DomainError of the URL-error domain; none otherwise.
    static std::optional<long> code(const Error& error);
};

}  // namespace kel
