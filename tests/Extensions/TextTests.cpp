#include "kel/Extensions/String.hpp"
#include "kel/Extensions/URLString.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(TextUppercasing, FirstCharacterOnlyAndAsciiOnly) {
    EXPECT_EQ(kel::uppercasedFirst("hello world"), "Hello world");
    EXPECT_EQ(kel::uppercasedFirst(""), "");
    EXPECT_EQ(kel::uppercasedFirst("x"), "X");
    EXPECT_EQ(kel::uppercasedFirst("Already"), "Already");
    EXPECT_EQ(kel::uppercasedFirst(" space"), " space");
    EXPECT_EQ(kel::uppercasedFirst("\xC3\xA9t\xC3\xA9"), "\xC3\xA9t\xC3\xA9");  // "été" as is
    EXPECT_EQ(kel::uppercased("mixed Case 42 \xC3\xA9"), "MIXED CASE 42 \xC3\xA9");

    std::string text = "in place";
    kel::uppercaseFirst(text);
    EXPECT_EQ(text, "In place");
}

TEST(URLTextScheme, ValidSchemesOnly) {
    EXPECT_EQ(kel::urlScheme("https://example.com"), "https");
    EXPECT_EQ(kel::urlScheme("mailto:someone@example.com"), "mailto");
    EXPECT_EQ(kel::urlScheme("svn+ssh://host/repo"), "svn+ssh");
    EXPECT_EQ(kel::urlScheme(""), std::nullopt);
    EXPECT_EQ(kel::urlScheme("example.com/path"), std::nullopt);
    EXPECT_EQ(kel::urlScheme("://nothing"), std::nullopt);
    EXPECT_EQ(kel::urlScheme("1http://x"), std::nullopt);
    EXPECT_EQ(kel::urlScheme("ht tp://x"), std::nullopt);

    EXPECT_TRUE(kel::hasScheme("HTTPS://Example.com", "https"));
    EXPECT_FALSE(kel::hasScheme("https://example.com", "http"));
    EXPECT_TRUE(kel::isFileURL("file:///tmp/data.json"));
    EXPECT_FALSE(kel::isFileURL("/tmp/data.json"));
}

TEST(URLTextWeb, NeedsHttpOrHttpsAndAHost) {
    for (const char* url :
         {"http://example.com", "https://example.com/a/b?c=d#e", "HTTP://EXAMPLE.COM",
          "https://user:pw@host:8443/", "http://[::1]:8080/", "http://localhost?x"}) {
        EXPECT_TRUE(kel::isWebURL(url)) << url;
    }
    for (const char* url : {"", "example.com", "ftp://example.com", "http://", "https:///path",
                            "http:example.com", "http://host:port/", "http://exa mple.com",
                            "http://user@/", "http://[]/", "file:///etc/hosts"}) {
        EXPECT_FALSE(kel::isWebURL(url)) << url;
    }
}

}  // namespace
