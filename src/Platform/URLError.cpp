#include "kel/Platform/URLError.hpp"

namespace kel {

namespace {

const char* describe(URLError::Code code) {
    switch (code) {
        case URLError::cancelled:
            return "cancelled";
        case URLError::badURL:
            return "bad URL";
        case URLError::timedOut:
            return "The request timed out.";
        case URLError::unsupportedURL:
            return "unsupported URL";
        case URLError::cannotFindHost:
            return "A server with the specified hostname could not be found.";
        case URLError::cannotConnectToHost:
            return "Could not connect to the server.";
        case URLError::networkConnectionLost:
            return "The network connection was lost.";
        case URLError::dnsLookupFailed:
            return "DNS lookup failed.";
        case URLError::httpTooManyRedirects:
            return "too many HTTP redirects";
        case URLError::resourceUnavailable:
            return "resource unavailable";
        case URLError::notConnectedToInternet:
            return "The Internet connection appears to be offline.";
        case URLError::badServerResponse:
            return "bad server response";
        case URLError::cannotDecodeContentData:
            return "cannot decode raw data";
        case URLError::cannotParseResponse:
            return "cannot parse response";
        case URLError::dataLengthExceedsMaximum:
            return "resource exceeds maximum size";
        case URLError::secureConnectionFailed:
            return "An SSL error has occurred and a secure connection to the server cannot be "
                   "made.";
        case URLError::serverCertificateUntrusted:
            return "The certificate for this server is invalid.";
        case URLError::unknown:
            break;
    }
    return "unknown error";
}

}  // namespace

DomainError URLError::make(Code code, const std::string& failingURL) {
    DomainError::UserInfo userInfo{{DomainError::localizedDescriptionKey, describe(code)}};
    if (!failingURL.empty()) {
        userInfo.emplace(failingURLStringKey, failingURL);
    }
    return DomainError(domain, code, std::move(userInfo));
}

std::optional<long> URLError::code(const Error& error) {
    auto domainError = errorAs<DomainError>(error);
    if (!domainError || domainError->domain() != domain) {
        return std::nullopt;
    }
    return domainError->code();
}

}  // namespace kel
