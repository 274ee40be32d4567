#include "kel/Platform/UUID.hpp"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace {

TEST(UUIDText, IsUpperCaseVersionFourAndRoundTrips) {
    // Upper-case hex in 8-4-4-4-12 groups, version 4, variant 10xx.
    const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    for (int i = 0; i < 100; ++i) {
        kel::UUID uuid;
        EXPECT_TRUE(std::regex_match(uuid.uuidString(), form)) << uuid.uuidString();
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
