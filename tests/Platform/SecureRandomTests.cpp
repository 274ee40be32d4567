#include "kel/Platform/SecureRandom.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

namespace {

// A forked child must not repeat the bytes its parent hands out next (a generator state
// copied by fork would).
TEST(SecureRandom, AForkedChildDrawsOtherBytesThanItsParent) {
    std::array<unsigned char, 16> warm{};
    kel::secureRandomBytes(warm.data(), warm.size());  // the parent's generator has state now
    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::array<unsigned char, 16> bytes{};
        kel::secureRandomBytes(bytes.data(), bytes.size());
        _exit(::write(pipeEnds[1], bytes.data(), bytes.size()) == 16 ? 0 : 1);
    }
    std::array<unsigned char, 16> parent{}, fromChild{};
    kel::secureRandomBytes(parent.data(), parent.size());
    ASSERT_EQ(::read(pipeEnds[0], fromChild.data(), fromChild.size()), 16);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);
    EXPECT_NE(parent, fromChild);
}

}  // namespace
