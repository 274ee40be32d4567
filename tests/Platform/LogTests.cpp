#include "kel/Platform/Log.hpp"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

TEST(LogRendering, PublicArgumentsShownPrivateOnesRedactedBySystemSink) {
    std::vector<kel::LogArgument> arguments{"op-1", "https://example.com/secret"};
    const char* format = "Network operation %{public}@ will issue request to URL: %@";
    EXPECT_EQ(kel::renderLogMessage(format, arguments, true),
              "Network operation op-1 will issue request to URL: <private>");
    EXPECT_EQ(kel::renderLogMessage(format, arguments, false),
              "Network operation op-1 will issue request to URL: https://example.com/secret");
    EXPECT_EQ(kel::renderLogMessage("a %{private}@ b", {"x"}, true), "a <private> b");
}

TEST(LogRendering, NumbersArePublicAndFormattedByConversion) {
    EXPECT_EQ(kel::renderLogMessage("with %lu workers", {std::size_t{3}}, true), "with 3 workers");
    EXPECT_EQ(kel::renderLogMessage("after delay: %f", {2.5}, true), "after delay: 2.500000");
    EXPECT_EQ(kel::renderLogMessage("%d%% done", {-4}, true), "-4% done");
}

TEST(LogRendering, OddFormatsDoNotCrash) {
    EXPECT_EQ(kel::renderLogMessage("missing %@ and %{public}@", {"one"}, false),
              "missing one and (null)");
    EXPECT_EQ(kel::renderLogMessage("trailing %", {}, false), "trailing %");
    EXPECT_EQ(kel::renderLogMessage("unclosed %{public", {"x"}, false), "unclosed %{public");
    EXPECT_EQ(kel::renderLogMessage("odd %q and %s", {"x"}, false), "odd %q and %s");
}

TEST(LogSinks, CapturingSinkRecordsLevelFormatAndArgumentsThenRestores) {
    auto before = kel::Log::sink();
    auto capture = std::make_shared<kel::CapturingLogSink>();
    {
        kel::ScopedLogSink scope(capture);
        kel::Log::write(kel::LogLevel::error, "failed: %{public}@", "disk full");
        kel::Log::write(kel::LogLevel::default_, "count %lu", 2u);
    }
    EXPECT_EQ(kel::Log::sink(), before);

    auto records = capture->records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].level, kel::LogLevel::error);
    EXPECT_EQ(records[0].format, "failed: %{public}@");
    EXPECT_EQ(records[0].arguments, std::vector<kel::LogArgument>{"disk full"});
    EXPECT_EQ(records[1].level, kel::LogLevel::default_);
    EXPECT_EQ(capture->messages()[1], "count 2");
}

TEST(LogSinks, ConcurrentWritersLoseNoLine) {
    auto capture = std::make_shared<kel::CapturingLogSink>();
    kel::ScopedLogSink scope(capture);
    constexpr int threads = 4;
    constexpr int perThread = 200;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t] {
            for (int i = 0; i < perThread; ++i) {
                kel::Log::write(kel::LogLevel::default_, "%d/%d", t, i);
            }
        });
    }
    for (auto& w : workers) {
        w.join();
    }
    EXPECT_EQ(capture->records().size(), static_cast<std::size_t>(threads * perThread));
}

}  // namespace
