#include "kel/Extensions/RelativeDate.hpp"

#include "kel/Platform/MessageCatalog.hpp"

#include "ScopedEnvironment.hpp"

#include <gtest/gtest.h>

#include <clocale>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;

// Units are counted as calendar differences in a fixed time zone, not rounded totals; under a
// minute ago and anything in the future is "Now". The medium and long forms name the same unit.
TEST(RelativeDatePhrases, UnitBoundariesInBothStylesFromTheEnglishCatalogue) {
    kel::test::ScopedEnvironment environment;
    environment.set("TZ", "UTC0");
    // The test process never calls setlocale, as many programs do not; gettext(3) would
    // translate nothing here and hand back the keys.
    ASSERT_STREQ(std::setlocale(LC_MESSAGES, nullptr), "C");
    ASSERT_NE(kel::MessageCatalog::library(), nullptr);

    struct Case {
        Clock::duration ago;
        const char* medium;
        const char* long_;
    };
    const Case cases[] = {{30s, "Now", "Now"},
                          {-5min, "Now", "Now"},
                          {1min, "1 min ago", "1 minute ago"},
                          {59min, "59 mins ago", "59 minutes ago"},
                          {60min, "1 hr ago", "1 hour ago"},
                          {23h + 59min, "23 hrs ago", "23 hours ago"},
                          {24h, "1 day ago", "1 day ago"},
                          {6 * 24h + 23h, "6 days ago", "6 days ago"},
                          {13 * 24h, "1 wk ago", "1 week ago"},
                          {20 * 24h, "2 wks ago", "2 weeks ago"},
                          {400 * 24h, "1 yr ago", "1 year ago"},
                          {800 * 24h, "2 yrs ago", "2 years ago"}};
    const Clock::time_point now = Clock::now();
    for (const Case& c : cases) {
        using enum kel::RelativeDateStyle;
        EXPECT_EQ(kel::gregorianDisplayString(now - c.ago, medium, now), c.medium);
        EXPECT_EQ(kel::gregorianDisplayString(now - c.ago, long_, now), c.long_);
    }
    // Against the real clock, which has moved on a little since `now`.
    EXPECT_EQ(kel::gregorianMediumDisplayString(Clock::now() - 60min), "1 hr ago");
    EXPECT_EQ(kel::gregorianLongDisplayString(Clock::now() + 5min), "Now");
}

}  // namespace
