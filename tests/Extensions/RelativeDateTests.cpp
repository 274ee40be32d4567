#include "kel/Extensions/RelativeDate.hpp"

#include "kel/Platform/MessageCatalog.hpp"

#include "ScopedEnvironment.hpp"

#include <gtest/gtest.h>

#include <clocale>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;
using kel::RelativeDateStyle;

class RelativeDatePhrases : public ::testing::Test {
  protected:
    void SetUp() override { environment_.set("TZ", "UTC0"); }

    kel::testing::ScopedEnvironment environment_;
};

TEST_F(RelativeDatePhrases, EnglishWordingsInTheCLocaleWithMediumAndLongAgreeing) {
    // The test process never calls setlocale, as many programs do not; gettext(3) would
    // translate nothing here and hand back the keys.
    ASSERT_STREQ(std::setlocale(LC_MESSAGES, nullptr), "C");
    ASSERT_NE(kel::MessageCatalog::library(), nullptr);

    struct Case {
        Clock::duration ago;
        const char* medium;
        const char* long_;
    };
    const Case cases[] = {
        {10s, "Now", "Now"},
        {1min, "1 min ago", "1 minute ago"},
        {5min, "5 mins ago", "5 minutes ago"},
        {23h + 59min, "23 hrs ago", "23 hours ago"},
        {24h, "1 day ago", "1 day ago"},
        {2 * 24h, "2 days ago", "2 days ago"},
        {20 * 24h, "2 wks ago", "2 weeks ago"},
        {800 * 24h, "2 yrs ago", "2 years ago"},
    };
    Clock::time_point now = Clock::now();
    for (const Case& c : cases) {
        EXPECT_EQ(kel::gregorianDisplayString(now - c.ago, RelativeDateStyle::medium, now),
                  c.medium);
        EXPECT_EQ(kel::gregorianDisplayString(now - c.ago, RelativeDateStyle::long_, now), c.long_);
    }
}

TEST_F(RelativeDatePhrases, UnitBoundariesAgainstTheRealClock) {
    Clock::time_point now = Clock::now();
    EXPECT_EQ(kel::gregorianMediumDisplayString(now - 30s), "Now");
    EXPECT_EQ(kel::gregorianLongDisplayString(now + 5min), "Now");
    EXPECT_EQ(kel::gregorianLongDisplayString(now + 400 * 24h), "Now");
    EXPECT_EQ(kel::gregorianMediumDisplayString(now - 59min), "59 mins ago");
    EXPECT_EQ(kel::gregorianMediumDisplayString(now - 60min), "1 hr ago");
    EXPECT_EQ(kel::gregorianLongDisplayString(now - 1h - 59min), "1 hour ago");
    EXPECT_EQ(kel::gregorianLongDisplayString(now - 6 * 24h - 23h), "6 days ago");
    EXPECT_EQ(kel::gregorianMediumDisplayString(now - 13 * 24h), "1 wk ago");
    EXPECT_EQ(kel::gregorianMediumDisplayString(now - 400 * 24h), "1 yr ago");
}

}  // namespace
