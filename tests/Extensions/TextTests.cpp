#include "kel/Extensions/String.hpp"
#include "kel/Extensions/URLString.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(TextUppercasing, FirstCharacterOnlyAndAsciiOnly) {
    EXPECT_EQ(kel::uppercasedFirst("hello world"), "Hello world");
    EXPECT_EQ(kel::uppercasedFirst(""), "");
    EXPECT_EQ(kel::uppercasedFirst("\xC3\xA9t\xC3\xA9"), "\xC3\xA9t\xC3\xA9");  // "été" as is
    EXPECT_EQ(kel::uppercased("mixed Case 42 \xC3\xA9"), "MIXED CASE 42 \xC3\xA9");
}

// Schemes are checked and compared without case; web URLs need http or https and a host.
TEST(URLText, SchemesAndWebURLs) {
    EXPECT_EQ(kel::urlScheme("svn+ssh://host/repo"), "svn+ssh");
    for (const char* text : {"example.com/path", "://nothing", "1http://x", "ht tp://x"}) {
        EXPECT_EQ(kel::urlScheme(text), std::nullopt) << text;
    }
    EXPECT_TRUE(kel::hasScheme("HTTPS://Example.com", "https"));
    EXPECT_FALSE(kel::hasScheme("https://example.com", "http"));
    EXPECT_TRUE(kel::isFileURL("file:///tmp/data.json"));
    EXPECT_FALSE(kel::isFileURL("/tmp/data.json"));
    for (const char* url :
         {"https://example.com/a/b?c=d#e", "HTTP://EXAMPLE.COM", "https://user:pw@host:8443/",
          "http://[::1]:8080/", "http://[::1]/", "http://localhost?x"}) {
        EXPECT_TRUE(kel::isWebURL(url)) << url;
    }
    for (const char* url :
         {"example.com", "ftp://example.com", "https:///path", "http:example.com",
          "http://host:port/", "http://exa mple.com", "http://user@/", "http://[]/",
          "http://[::1]junk/", "http://[::1]:port/", "http://[::1/"}) {
        EXPECT_FALSE(kel::isWebURL(url)) << url;
    }
}

}  // namespace
