#include "kel/Networking/detail/NetworkResponseDescription.hpp"

#include <cstdio>

#include "kel/Platform/ByteCountFormatter.hpp"

namespace kel::runtime {

namespace {

long long milliseconds(std::chrono::duration<double> seconds) {
    // Seconds times 1000, truncated toward zero.
    return static_cast<long long>(seconds.count() * 1000.0);
}

// Length of the UTF-8 sequence starting at bytes[i], or 0 when it is not a valid one.
std::size_t sequenceLength(std::span<const std::uint8_t> bytes, std::size_t i) {
    std::uint8_t lead = bytes[i];
    std::size_t length;
    std::uint32_t minimum;
    std::uint32_t point;
    if (lead < 0x80)
        return 1;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, minimum = 0x80, point = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, minimum = 0x800, point = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, minimum = 0x10000, point = lead & 0x07;
    } else {
        return 0;
    }
    if (i + length > bytes.size())
        return 0;
    for (std::size_t k = 1; k < length; ++k) {
        if ((bytes[i + k] & 0xC0) != 0x80)
            return 0;
        point = (point << 6) | (bytes[i + k] & 0x3F);
    }
    if (point < minimum || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF))
        return 0;
    return length;
}

}  // namespace

std::string networkResponseDescription(std::size_t byteCount,
                                       const URLSessionTaskMetrics* metrics) {
    std::string text =
        "size=" + ByteCountFormatter::string(static_cast<std::int64_t>(byteCount),
                                             ByteCountFormatter::CountStyle::decimal);
    if (metrics == nullptr) {
        return text;
    }
    const URLSessionTaskTransactionMetrics* first =
        metrics->transactionMetrics.empty() ? nullptr : &metrics->transactionMetrics.front();
    if (first == nullptr || !first->fetchStartDate || !first->requestStartDate ||
        !first->responseStartDate) {
        return text + ", total=" + metrics->taskInterval.description();
    }
    auto queued = milliseconds(*first->fetchStartDate - metrics->taskInterval.start);
    auto ttfb = milliseconds(*first->responseStartDate - *first->requestStartDate);
    auto total = milliseconds(metrics->taskInterval.duration);
    return text + ", queued=" + std::to_string(queued) + "ms, ttfb=" + std::to_string(ttfb) +
           "ms, total=" + std::to_string(total) + "ms";
}

std::string optionalUTF8Description(std::span<const std::uint8_t> bytes) {
    std::string text = "Optional(\"";
    for (std::size_t i = 0; i < bytes.size();) {
        std::size_t length = sequenceLength(bytes, i);
        if (length == 0) {
            return "nil";
        }
        char c = static_cast<char>(bytes[i]);
        if (length > 1) {
            text.append(reinterpret_cast<const char*>(&bytes[i]), length);
        } else if (c == '"' || c == '\\') {
            text += '\\';
            text += c;
        } else if (c == '\n') {
            text += "\\n";
        } else if (c == '\r') {
            text += "\\r";
        } else if (c == '\t') {
            text += "\\t";
        } else if (bytes[i] < 0x20 || bytes[i] == 0x7F) {
            char escape[16];
            std::snprintf(escape, sizeof escape, "\\u{%X}", bytes[i]);
            text += escape;
        } else {
            text += c;
        }
        i += length;
    }
    return text + "\")";
}

}  // namespace kel::runtime
