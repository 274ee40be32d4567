// The library's private ASCII helpers: the edges that the URL, UUID and file-URL parsers rely on.
#include "../../src/Platform/ASCII.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

using kel::detail::MalformedEscape;
using kel::detail::percentDecode;

TEST(ASCIIPercentCoding, EscapesCutShortOrNotHexAreRejectedOrKeptWholeAndHighBytesRoundTrip) {
    EXPECT_EQ(percentDecode("a%41%7e%7E", MalformedEscape::reject), "aA~~");
    EXPECT_EQ(percentDecode("%00", MalformedEscape::reject), std::string(1, '\0'));
    for (const char* malformed : {"%", "%4", "a%4", "%G1", "%1G", "100%"}) {
        EXPECT_EQ(percentDecode(malformed, MalformedEscape::reject), std::nullopt) << malformed;
        EXPECT_EQ(percentDecode(malformed, MalformedEscape::keep), malformed) << malformed;
    }
    // A kept "%" does not swallow a valid escape right after it.
    EXPECT_EQ(percentDecode("%%41", MalformedEscape::keep), "%A");

    // Bytes above seven bits encode as two upper-case digits and decode back.
    std::string out;
    kel::detail::appendPercentEncoded(out, "a \xff\x80/", [](unsigned char byte) {
        return kel::detail::isAsciiLetter(static_cast<char>(byte));
    });
    EXPECT_EQ(out, "a%20%FF%80%2F");
    EXPECT_EQ(percentDecode(out, MalformedEscape::reject), "a \xff\x80/");
}

TEST(ASCIICase, OnlyAsciiLettersFoldAndAPrefixLongerThanTheTextNeverMatches) {
    EXPECT_TRUE(kel::detail::startsWithIgnoringCase("FILE:///x", "file://"));
    EXPECT_FALSE(kel::detail::startsWithIgnoringCase("file:", "file://"));
    EXPECT_FALSE(kel::detail::equalsIgnoringCase("[", "{"));  // 0x5B and 0x7B differ by 0x20
    EXPECT_FALSE(kel::detail::equalsIgnoringCase("\xc4", "\xe4"));
    EXPECT_EQ(kel::detail::hexValue('g'), -1);
    EXPECT_EQ(kel::detail::hexValue('F'), 15);
}

}  // namespace
