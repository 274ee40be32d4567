#include "kel/Platform/UUID.hpp"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

TEST(UUIDText, IsUpperCaseVersionFourAndRoundTrips) {
    for (int i = 0; i < 100; ++i) {
        kel::UUID uuid;
        std::string text = uuid.uuidString();
        ASSERT_EQ(text.size(), 36u);
        for (std::size_t c = 0; c < text.size(); ++c) {
            bool hyphen = c == 8 || c == 13 || c == 18 || c == 23;
            ASSERT_EQ(hyphen, text[c] == '-') << text;
            ASSERT_TRUE(hyphen || std::string_view("0123456789ABCDEF").find(text[c]) !=
                                      std::string_view::npos)
                << text;
        }
        EXPECT_EQ(text[14], '4') << text;  // version 4
        EXPECT_NE(std::string_view("89AB").find(text[19]), std::string_view::npos) << text;
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
