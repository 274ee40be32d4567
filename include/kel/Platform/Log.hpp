// kel::Log — the library's facade over the system log.
//
// Every log line of the library goes through Log::write with one of two levels (default,
// error), a format string in the platform's notation and its arguments. Placeholders:
//   "%{public}@"  an argument shown as is;
//   "%@"          a private argument, redacted as "<private>" by the system sink;
//   "%{private}@" the same, spelled out;
//   "%d" "%ld" "%lu" "%u" "%f" (optionally with "{public}"/"{private}"): numbers, public
//                 unless marked private, as the platform does for scalars;
//   "%%"          a percent sign.
// The default sink writes to syslog(3), which the journal collects. Tests and applications may
// install another sink (CapturingLogSink records every line with its level, format and
// arguments) with Log::setSink or, scoped, with ScopedLogSink.
//
// Thread rules: Log::write, setSink and sink may be called from any thread. A sink's write may
// be called concurrently from several threads; the sinks below lock what they keep.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "kel/Export.hpp"

namespace kel {

enum class LogLevel { default_, error };

// One argument of a log line: text, a signed or unsigned integer, or a floating-point value.
class KEL_EXPORT LogArgument {
  public:
    using Value = std::variant<std::string, long long, unsigned long long, double>;

    LogArgument(std::string_view text) : value_(std::string(text)) {}
    LogArgument(const char* text) : value_(std::string(text != nullptr ? text : "(null)")) {}
    LogArgument(const std::string& text) : value_(text) {}
    LogArgument(std::string&& text) : value_(std::move(text)) {}
    template <class I>
    requires(std::is_integral_v<I>&& std::is_signed_v<I>) LogArgument(I number)
        : value_(static_cast<long long>(number)) {}
    template <class I>
    requires(std::is_integral_v<I>&& std::is_unsigned_v<I> && !std::is_same_v<I, bool>)
        LogArgument(I number)
        : value_(static_cast<unsigned long long>(number)) {}
    LogArgument(double number) : value_(number) {}

    const Value& value() const noexcept { return value_; }

    // The argument as text, the way an object argument ("%@") prints it.
    std::string text() const;

    friend bool operator==(const LogArgument&, const LogArgument&) = default;

  private:
    Value value_;
};

// One log line as it was written: level, format and arguments, unrendered.
struct KEL_EXPORT LogRecord {
    LogLevel level = LogLevel::default_;
    std::string format;
    std::vector<LogArgument> arguments;

    // The rendered line. With redactPrivate, private arguments read "<private>" as the system
    // log shows them; without, every argument is shown.
    std::string message(bool redactPrivate = false) const;
};

// Renders a format with its arguments (see the placeholder list above). Missing arguments
// render as "(null)". A conversion the renderer does not know ("%s", "%{public}x") still takes
// its argument and treats it as private, so later arguments never shift into other places.
// Control characters in arguments are escaped ("\n" reads as a backslash and "n"), so an
// argument cannot start a second log line.
KEL_EXPORT std::string renderLogMessage(std::string_view format,
                                        const std::vector<LogArgument>& arguments,
                                        bool redactPrivate);

class KEL_EXPORT LogSink {
  public:
    virtual ~LogSink() = default;
    virtual void write(const LogRecord& record) = 0;
};

// The default sink: syslog(3) at LOG_NOTICE (default level) or LOG_ERR (error level), private
// arguments redacted.
class KEL_EXPORT SyslogSink final : public LogSink {
  public:
    void write(const LogRecord& record) override;
};

// Keeps every record it is given, for tests and diagnostics.
class KEL_EXPORT CapturingLogSink final : public LogSink {
  public:
    void write(const LogRecord& record) override;
    std::vector<LogRecord> records() const;
    // Rendered messages, every argument shown.
    std::vector<std::string> messages() const;
    void clear();

  private:
    mutable std::mutex mutex_;  // guards records_
    std::vector<LogRecord> records_;
};

class KEL_EXPORT Log {
  public:
    template <class... Args>
    static void write(LogLevel level, std::string_view format, Args&&... arguments) {
        LogRecord record{level, std::string(format), {}};
        record.arguments.reserve(sizeof...(Args));
        (record.arguments.emplace_back(std::forward<Args>(arguments)), ...);
        dispatch(record);
    }

    // Installs a sink for the whole process and returns the previous one. A null sink restores
    // the syslog sink.
    static std::shared_ptr<LogSink> setSink(std::shared_ptr<LogSink> sink);
    static std::shared_ptr<LogSink> sink();

  private:
    static void dispatch(const LogRecord& record);
};

// Installs a sink for the lifetime of this object, then puts the previous one back.
class ScopedLogSink {
  public:
    explicit ScopedLogSink(std::shared_ptr<LogSink> sink)
        : previous_(Log::setSink(std::move(sink))) {}
    ~ScopedLogSink() { Log::setSink(std::move(previous_)); }
    ScopedLogSink(const ScopedLogSink&) = delete;
    ScopedLogSink& operator=(const ScopedLogSink&) = delete;

  private:
    std::shared_ptr<LogSink> previous_;
};

}  // namespace kel
