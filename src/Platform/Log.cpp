#include "kel/Platform/Log.hpp"

#include "ASCII.hpp"

#include <syslog.h>

#include <charconv>
#include <mutex>
#include <string_view>

namespace kel {

namespace {

// printf's "%f" / "%g" in the C locale whatever the process's numeric locale, so a log line
// reads the same under a locale that writes a decimal comma.
std::string formatDouble(double number, std::chars_format format) {
    char buffer[400];  // "%f" of the largest double is 309 digits, the point and 6 decimals
    auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, number, format, 6);
    return error == std::errc() ? std::string(buffer, end) : std::string();
}

// The text of a numeric conversion: "%f" prints fixed-point; "%d", "%i" and "%u" print an
// integer (a double's integral part).
std::string formatNumber(char conversion, const LogArgument::Value& value) {
    if (conversion == 'f') {
        double number = std::visit(
            [](const auto& v) -> double {
                if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::string>) {
                    return 0.0;
                } else {
                    return static_cast<double>(v);
                }
            },
            value);
        return formatDouble(number, std::chars_format::fixed);
    }
    return std::visit(
        [](const auto& v) -> std::string {
            using V = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<V, std::string>) {
                return v;
            } else if constexpr (std::is_same_v<V, double>) {
                return std::to_string(static_cast<long long>(v));
            } else {
                return std::to_string(v);
            }
        },
        value);
}

}  // namespace

std::string LogArgument::text() const {
    return std::visit(
        [](const auto& v) -> std::string {
            using V = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<V, std::string>) {
                return v;
            } else if constexpr (std::is_same_v<V, double>) {
                return formatDouble(v, std::chars_format::general);
            } else {
                return std::to_string(v);
            }
        },
        value_);
}

namespace {

// Appends an argument's text with control characters escaped, so that an argument can never
// start a forged log line ("\n") or rewrite the terminal.
void appendEscaped(std::string& out, std::string_view text) {
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else {
            out += "\\x";
            out += detail::hexDigit(byte >> 4, detail::HexCase::lower);
            out += detail::hexDigit(byte, detail::HexCase::lower);
        }
    }
}

bool isConversionModifier(char c) {
    // printf's flags, field width, precision and length modifiers.
    return std::string_view("-+ #0123456789.hlqjztL").find(c) != std::string_view::npos;
}

}  // namespace

std::string renderLogMessage(std::string_view format, const std::vector<LogArgument>& arguments,
                             bool redactPrivate) {
    std::string out;
    out.reserve(format.size() + 16 * arguments.size());
    std::size_t next = 0;
    std::size_t i = 0;
    while (i < format.size()) {
        char c = format[i];
        if (c != '%' || i + 1 >= format.size()) {
            out += c;
            ++i;
            continue;
        }
        if (format[i + 1] == '%') {
            out += '%';
            i += 2;
            continue;
        }
        std::size_t j = i + 1;
        enum class Privacy { unspecified, public_, private_ } privacy = Privacy::unspecified;
        if (format[j] == '{') {
            std::size_t close = format.find('}', j);
            if (close == std::string_view::npos) {
                out.append(format.substr(i));
                break;
            }
            std::string_view attribute = format.substr(j + 1, close - j - 1);
            if (attribute == "public") {
                privacy = Privacy::public_;
            } else if (attribute == "private") {
                privacy = Privacy::private_;
            }
            j = close + 1;
        }
        while (j < format.size() && isConversionModifier(format[j])) {
            ++j;
        }
        if (j >= format.size()) {
            out.append(format.substr(i));
            break;
        }
        // Every conversion takes one argument, also one this renderer does not know ("%s",
        // "%{public}s", "%x"): skipping it would shift the later arguments into other places,
        // and a private one could land in a public place. Unknown conversions are private.
        const char kind = format[j];
        const bool known = kind == '@' || kind == 'd' || kind == 'i' || kind == 'u' || kind == 'f';
        i = j + 1;
        const bool isPrivate = !known || privacy == Privacy::private_ ||
                               (privacy == Privacy::unspecified && kind == '@');
        if (next >= arguments.size()) {
            out += "(null)";
            continue;
        }
        const LogArgument& argument = arguments[next++];
        if (redactPrivate && isPrivate) {
            out += "<private>";
        } else if (kind == 'd' || kind == 'i' || kind == 'u' || kind == 'f') {
            appendEscaped(out, formatNumber(kind, argument.value()));
        } else {
            appendEscaped(out, argument.text());
        }
    }
    return out;
}

std::string LogRecord::message(bool redactPrivate) const {
    return renderLogMessage(format, arguments, redactPrivate);
}

void SyslogSink::write(const LogRecord& record) {
    std::string line = record.message(true);
    ::syslog(record.level == LogLevel::error ? LOG_ERR : LOG_NOTICE, "%s", line.c_str());
}

void CapturingLogSink::write(const LogRecord& record) {
    std::lock_guard guard(mutex_);
    records_.push_back(record);
}

std::vector<LogRecord> CapturingLogSink::records() const {
    std::lock_guard guard(mutex_);
    return records_;
}

std::vector<std::string> CapturingLogSink::messages() const {
    std::lock_guard guard(mutex_);
    std::vector<std::string> out;
    out.reserve(records_.size());
    for (const auto& record : records_) {
        out.push_back(record.message(false));
    }
    return out;
}

void CapturingLogSink::clear() {
    std::lock_guard guard(mutex_);
    records_.clear();
}

namespace {

struct SinkSlot {
    std::mutex mutex;  // guards sink
    std::shared_ptr<LogSink> sink = std::make_shared<SyslogSink>();
};

SinkSlot& sinkSlot() {
    // Leaked on purpose: threads may still log while static destructors run at exit.
    static SinkSlot* slot = new SinkSlot();
    return *slot;
}

}  // namespace

std::shared_ptr<LogSink> Log::setSink(std::shared_ptr<LogSink> sink) {
    if (!sink) {
        sink = std::make_shared<SyslogSink>();
    }
    SinkSlot& slot = sinkSlot();
    std::lock_guard guard(slot.mutex);
    std::swap(slot.sink, sink);
    return sink;
}

std::shared_ptr<LogSink> Log::sink() {
    SinkSlot& slot = sinkSlot();
    std::lock_guard guard(slot.mutex);
    return slot.sink;
}

void Log::dispatch(const LogRecord& record) {
    // The sink is written outside the slot's lock so a slow sink never blocks setSink.
    sink()->write(record);
}

}  // namespace kel
