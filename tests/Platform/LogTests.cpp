#include "kel/Platform/Log.hpp"

#include <gtest/gtest.h>

#include <thread>
#include <tuple>
#include <vector>

namespace {

// Public arguments are shown; private ones (%@ without a qualifier) are shown to a sink that
// does not redact and replaced by "<private>" for one that does.
TEST(LogRendering, ArgumentsRenderByTheirConversionAndOnlyPublicOnesSurviveRedaction) {
    const std::vector<kel::LogArgument> request{"op-1", "https://example.com/secret"};
    const std::vector<kel::LogArgument> opened{"secret-token", "file.txt", 7};
    const std::tuple<const char*, std::vector<kel::LogArgument>, bool, const char*> cases[] = {
        {"Network operation %{public}@ will issue request to URL: %@", request, true,
         "Network operation op-1 will issue request to URL: <private>"},
        {"Network operation %{public}@ will issue request to URL: %@", request, false,
         "Network operation op-1 will issue request to URL: https://example.com/secret"},
        {"a %{private}@ b", {"x"}, true, "a <private> b"},
        // Numbers are public and formatted by their conversion.
        {"with %lu workers", {std::size_t{3}}, true, "with 3 workers"},
        {"after delay: %f", {2.5}, true, "after delay: 2.500000"},
        {"%d%% done", {-4}, true, "-4% done"},
        // Odd formats render what they can.
        {"missing %@ and %{public}@", {"one"}, false, "missing one and (null)"},
        {"trailing %", {}, false, "trailing %"},
        {"unclosed %{public", {"x"}, false, "unclosed %{public"},
        // An unknown conversion still takes its argument, as private, so that the arguments
        // after it keep their places.
        {"token %s opened %{public}@ (%d)", opened, true, "token <private> opened file.txt (7)"},
        {"token %{public}s opened %{public}@", opened, true, "token <private> opened file.txt"},
        {"token %-08.3ls opened %{public}@", opened, false, "token secret-token opened file.txt"},
        // Arguments cannot forge a second line.
        {"removing %{public}@",
         {"a.json\nError: disk wiped\r\x1b[2J"},
         true,
         "removing a.json\\nError: disk wiped\\r\\x1b[2J"},
    };
    for (const auto& [format, arguments, redact, expected] : cases) {
        EXPECT_EQ(kel::renderLogMessage(format, arguments, redact), expected)
            << format << (redact ? " (redacted)" : "");
    }
}

TEST(LogSinks, CapturingSinkRecordsEveryLineFromManyThreadsThenRestores) {
    auto before = kel::Log::sink();
    auto capture = std::make_shared<kel::CapturingLogSink>();
    {
        kel::ScopedLogSink scope(capture);
        kel::Log::write(kel::LogLevel::error, "failed: %{public}@", "disk full");
        std::vector<std::jthread> writers;  // joined before the sink is restored
        for (int t = 0; t < 4; ++t) {
            writers.emplace_back([t] {
                for (int i = 0; i < 200; ++i) {
                    kel::Log::write(kel::LogLevel::default_, "%d/%d", t, i);
                }
            });
        }
    }
    EXPECT_EQ(kel::Log::sink(), before);
    auto records = capture->records();
    ASSERT_EQ(records.size(), 1u + 4 * 200);
    EXPECT_EQ(records[0].level, kel::LogLevel::error);
    EXPECT_EQ(capture->messages()[0], "failed: disk full");
}

}  // namespace
