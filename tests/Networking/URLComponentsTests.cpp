#include <kel/Platform/ByteCountFormatter.hpp>
#include <kel/Platform/URLComponents.hpp>

#include <gtest/gtest.h>

namespace {

TEST(URLComponents, SplitsAndRebuildsWithReplacedQuery) {
    auto url = kel::URL::fromString("https://user@api.example.com:8443/v1/feed?old=1#top");
    ASSERT_TRUE(url);
    auto components = kel::URLComponents::make(*url);
    ASSERT_TRUE(components);
    EXPECT_EQ(components->scheme(), "https");
    EXPECT_EQ(components->host(), "api.example.com");
    EXPECT_EQ(components->port(), 8443);
    EXPECT_EQ(components->path(), "/v1/feed");
    EXPECT_EQ(components->queryItems(), (std::vector<kel::URLQueryItem>{{"old", "1"}}));

    components->setQueryItems(std::vector<kel::URLQueryItem>{
        {"q", "a b&c=d+e#f"}, {"flag", std::nullopt}, {"empty", ""}, {"ü", "/?:@"}});
    EXPECT_EQ(components->url()->absoluteString(),
              "https://user@api.example.com:8443/v1/"
              "feed?q=a%20b%26c%3Dd%2Be%23f&flag&empty=&%C3%BC=/?:@#top");
    EXPECT_EQ(components->queryItems()->at(0).value, "a b&c=d+e#f");

    components->setQueryItems(std::vector<kel::URLQueryItem>{});
    EXPECT_EQ(components->url()->absoluteString(),
              "https://user@api.example.com:8443/v1/feed?#top");
    components->setQueryItems(std::nullopt);
    EXPECT_EQ(components->url()->absoluteString(), "https://user@api.example.com:8443/v1/feed#top");
}

TEST(URLComponents, RejectsWhatIsNotAnAbsoluteURL) {
    EXPECT_FALSE(kel::URL::fromString(""));
    EXPECT_FALSE(kel::URL::fromString("http://a b/"));
    auto relative = kel::URL::fromString("feed/items");
    ASSERT_TRUE(relative) << "a relative reference is a URL";
    EXPECT_FALSE(kel::URLComponents::make(*relative));
    EXPECT_FALSE(kel::URLComponents::fromString("http://[::1/"));
    EXPECT_EQ(kel::percentDecode("%4"), std::nullopt);
    EXPECT_EQ(kel::percentDecode("a%41"), "aA");
}

TEST(ByteCountFormatter, DecimalStyleWording) {
    using Style = kel::ByteCountFormatter::CountStyle;
    auto format = [](std::int64_t n) { return kel::ByteCountFormatter::string(n, Style::decimal); };
    EXPECT_EQ(format(0), "Zero KB");
    EXPECT_EQ(format(1), "1 byte");
    EXPECT_EQ(format(1024), "1 KB");
    EXPECT_EQ(format(1500), "2 KB");
    EXPECT_EQ(format(1'500'000), "1.5 MB");
    EXPECT_EQ(format(1'234'567'890), "1.23 GB");
    EXPECT_EQ(kel::ByteCountFormatter::string(2048, Style::binary), "2 KB");
}

}  // namespace
