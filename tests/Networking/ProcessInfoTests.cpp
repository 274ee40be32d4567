#include <kel/Platform/ProcessInfo.hpp>

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "ScopedEnvironment.hpp"

namespace {

template <class T>
std::optional<T> parse(std::string_view text) {
    return kel::ProcessInfoValue<T>::from(text);
}

TEST(ProcessInfoValue, IntegersAreASignAndDigitsAndBooleansAreExact) {
    EXPECT_EQ(parse<std::int64_t>("5"), 5);
    EXPECT_EQ(parse<bool>("false"), false);
    EXPECT_EQ(parse<bool>("True"), std::nullopt);
    EXPECT_EQ(parse<std::string>(" any text "), " any text ");
    EXPECT_EQ(parse<std::int64_t>("-5"), -5);
    EXPECT_EQ(parse<std::int64_t>("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(parse<std::int64_t>("-9223372036854775808"),
              std::numeric_limits<std::int64_t>::min());
    for (const char* bad : {"", "-", "+", "+-5", "--5", " 5", "5 ", "5x", "0x10", "1e3", "1.0",
                            "9223372036854775808", "٣"}) {
        EXPECT_EQ(parse<std::int64_t>(bad), std::nullopt) << '"' << bad << '"';
    }
}

TEST(ProcessInfoValue, FloatingPointTakesTheCSyntaxWhole) {
    EXPECT_EQ(parse<double>("1.5"), 1.5);
    EXPECT_EQ(parse<double>("-.5"), -0.5);
    EXPECT_EQ(parse<double>("1e3"), 1000.0);
    EXPECT_EQ(parse<double>("0x1.8p1"), 3.0);
    EXPECT_EQ(parse<double>("inf"), HUGE_VAL);
    EXPECT_EQ(parse<double>("-Infinity"), -HUGE_VAL);
    EXPECT_TRUE(std::isnan(*parse<double>("nan")));
    for (const char* bad : {"", "+", "1,5", " 1.5", "1.5 ", "1.5f", "+-1", "0x", "0x-1", "0xinf",
                            "1e400", "1e", "infinite"}) {
        EXPECT_EQ(parse<double>(bad), std::nullopt) << '"' << bad << '"';
    }
    EXPECT_EQ(parse<float>("1e39"), std::nullopt) << "out of range for float";
}

TEST(ProcessInfoValue, ParsingIgnoresTheProcessLocale) {
    // A German numeric locale writes "1,5". When the system lacks it, it is generated into a
    // scratch directory (localedef, from the locales package) and found through LOCPATH.
    kel::test::ScratchDirectory locales;
    kel::test::ScopedEnvironment environment;
    if (std::setlocale(LC_ALL, "de_DE.UTF-8") == nullptr) {
        std::string command = "localedef -i de_DE -f UTF-8 " + (locales / "de_DE.UTF-8").string() +
                              " >/dev/null 2>&1";
        if (std::system(command.c_str()) != 0) {
            GTEST_SKIP() << "localedef cannot build de_DE.UTF-8 (the locales package is missing)";
        }
        environment.set("LOCPATH", locales.path().string());
        ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr);
    }
    EXPECT_EQ(std::strtod("1,5", nullptr), 1.5) << "the locale writes a decimal comma";
    EXPECT_EQ(parse<double>("1.5"), 1.5);
    EXPECT_EQ(parse<float>("1.5"), 1.5f);
    EXPECT_EQ(parse<double>("0x1.8p1"), 3.0);
    EXPECT_EQ(parse<double>("1,5"), std::nullopt);
    std::setlocale(LC_ALL, "C");
}

TEST(ProcessInfo, LaunchArgumentsTakeTheNextArgumentUnlessItIsAFlag) {
    kel::ProcessInfo info({"app", "-count", "5", "-flag", "-other", "-offset", "-5", "-name", "a",
                           "-name", "x", "-name", "b", "-last"},
                          {});
    EXPECT_EQ(info.launchArgument<std::int64_t>("count"), 5);
    EXPECT_EQ(info.launchArgument<bool>("count"), std::nullopt);
    EXPECT_EQ(info.launchArgument<std::string>("flag"), std::nullopt);
    EXPECT_EQ(info.launchArgument<std::int64_t>("offset"), std::nullopt);
    EXPECT_EQ(info.launchArgument<std::string>("last"), std::nullopt);
    EXPECT_EQ(info.launchArgument<std::string>("missing"), std::nullopt);
    EXPECT_EQ(info.launchArgument<std::string>("name"), "a") << "the first occurrence";
    EXPECT_EQ(info.launchArguments<std::string>("name"), (std::vector<std::string>{"a", "x", "b"}));
    EXPECT_EQ(info.launchArguments<bool>("name"), std::vector<bool>{})
        << "values that do not parse are skipped";
}

TEST(ProcessInfo, EnvironmentVariablesAreLookedUpWithTheDash) {
    kel::ProcessInfo info({"app"}, {{"count", "1"}, {"-count", "2"}, {"-ratio", "0.25"}});
    EXPECT_EQ(info.environmentVariable<std::int64_t>("count"), 2);
    EXPECT_EQ(info.environmentVariable<double>("ratio"), 0.25);

    kel::test::ScopedEnvironment environment;
    environment.set("-kelProcessInfoTest", "42");
    auto process = kel::ProcessInfo::processInfo();
    EXPECT_EQ(process.environmentVariable<std::int64_t>("kelProcessInfoTest"), 42);
    ASSERT_FALSE(process.arguments().empty());
    EXPECT_NE(process.arguments()[0].find("KelTests_Networking"), std::string::npos);
}

}  // namespace
