#include "kel/Platform/UUID.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>

namespace {

TEST(UUIDText, IsUpperCaseVersionFourAndRoundTrips) {
    const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    for (int i = 0; i < 100; ++i) {
        kel::UUID uuid;
        ASSERT_TRUE(std::regex_match(uuid.uuidString(), form)) << uuid.uuidString();
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

}  // namespace
