#include "kel/Platform/UUID.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>

namespace {

// Upper-case hex in 8-4-4-4-12 groups, version 4, variant 10xx: the shape's 'h' is any hex
// digit, 'v' one of 89AB, anything else itself.
bool hasVersionFourForm(std::string_view text) {
    constexpr std::string_view shape = "hhhhhhhh-hhhh-4hhh-vhhh-hhhhhhhhhhhh";
    auto fits = [](char want, char c) {
        std::string_view allowed = want == 'h' ? "0123456789ABCDEF" : want == 'v' ? "89AB" : "";
        return allowed.empty() ? c == want : allowed.find(c) != std::string_view::npos;
    };
    return text.size() == shape.size() &&
           std::equal(shape.begin(), shape.end(), text.begin(), fits);
}

TEST(UUIDText, IsUpperCaseVersionFourAndRoundTrips) {
    for (int i = 0; i < 100; ++i) {
        kel::UUID uuid;
        EXPECT_TRUE(hasVersionFourForm(uuid.uuidString())) << uuid.uuidString();
        EXPECT_EQ(kel::UUID::fromString(uuid.uuidString()), uuid);
    }
    EXPECT_EQ(kel::UUID::fromString("e621e1f8-c36c-495a-93fc-0c247a3e6e5f")->uuidString(),
              "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    for (const char* bad :
         {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5G",
          "E621E1F8+C36C-495A-93FC-0C247A3E6E5F"}) {
        EXPECT_FALSE(kel::UUID::fromString(bad).has_value()) << bad;
    }
}

}  // namespace
