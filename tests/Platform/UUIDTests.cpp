#include "kel/Platform/SecureRandom.hpp"
#include "kel/Platform/UUID.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <set>
#include <string>

namespace {

TEST(UUIDText, IsUpperCaseEightFourFourFourTwelveWithVersionAndVariant) {
    for (int i = 0; i < 100; ++i) {
        std::string text = kel::UUID().uuidString();
        ASSERT_EQ(text.size(), 36u);
        for (std::size_t c = 0; c < text.size(); ++c) {
            if (c == 8 || c == 13 || c == 18 || c == 23) {
                EXPECT_EQ(text[c], '-') << text;
            } else {
                EXPECT_TRUE(std::isxdigit(static_cast<unsigned char>(text[c])) &&
                            !std::islower(static_cast<unsigned char>(text[c])))
                    << text;
            }
        }
        EXPECT_EQ(text[14], '4') << text;
        EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos) << text;
    }
}

TEST(UUIDText, RoundTripsAndRejectsMalformedText) {
    kel::UUID uuid;
    auto parsed = kel::UUID::fromString(uuid.uuidString());
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(*parsed, uuid);

    auto lower = kel::UUID::fromString("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
    ASSERT_TRUE(lower.has_value());
    EXPECT_EQ(lower->uuidString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");

    EXPECT_FALSE(kel::UUID::fromString("").has_value());
    EXPECT_FALSE(kel::UUID::fromString("E621E1F8C36C495A93FC0C247A3E6E5F").has_value());
    EXPECT_FALSE(kel::UUID::fromString("E621E1F8-C36C-495A-93FC-0C247A3E6E5G").has_value());
    EXPECT_FALSE(kel::UUID::fromString("E621E1F8-C36C-495A-93FC-0C247A3E6E5").has_value());
    EXPECT_FALSE(kel::UUID::fromString("E621E1F8+C36C-495A-93FC-0C247A3E6E5F").has_value());
}

TEST(UUIDGeneration, NewIdentifiersDoNotRepeat) {
    std::set<kel::UUID> seen;
    for (int i = 0; i < 10000; ++i) {
        EXPECT_TRUE(seen.insert(kel::UUID()).second);
    }
}

TEST(UUIDGeneration, ForkedChildDoesNotRepeatTheParentsNextIdentifier) {
    kel::UUID warmUp;  // leaves buffered random bytes behind in this thread
    (void)warmUp;
    int channel[2];
    ASSERT_EQ(::pipe(channel), 0);
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        kel::UUID inChild;
        ssize_t written = ::write(channel[1], inChild.bytes().data(), inChild.bytes().size());
        ::_exit(written == static_cast<ssize_t>(inChild.bytes().size()) ? 0 : 1);
    }
    kel::UUID inParent;
    kel::UUID::Bytes fromChild{};
    ASSERT_EQ(::read(channel[0], fromChild.data(), fromChild.size()),
              static_cast<ssize_t>(fromChild.size()));
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(channel[0]);
    ::close(channel[1]);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_NE(kel::UUID(fromChild), inParent);
}

TEST(SecureRandomUniform, StaysInRangeAndReachesEveryValue) {
    EXPECT_EQ(kel::secureRandomUniform(0), 0u);
    EXPECT_EQ(kel::secureRandomUniform(1), 0u);

    // Three is not a power of two, so a biased reduction would still stay in range; what this
    // checks is that every value is produced and nothing falls outside.
    std::array<int, 3> counts{};
    for (int i = 0; i < 3000; ++i) {
        std::uint32_t value = kel::secureRandomUniform(3);
        ASSERT_LT(value, 3u);
        ++counts[value];
    }
    for (int count : counts) {
        EXPECT_GT(count, 800);
    }
}

}  // namespace
