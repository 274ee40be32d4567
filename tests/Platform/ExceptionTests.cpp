#include "kel/Platform/Exception.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

const kel::DomainError untouched("untouched", 99);

TEST(ExceptionBridge, ARaisedExceptionBecomesADomainErrorAndOtherExceptionsPassThrough) {
    kel::DomainError error = untouched;
    int calls = 0;
    EXPECT_TRUE(kel::Exception::kf_tryCatch([&] { ++calls; }, &error));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(error, untouched);  // a normal return leaves the error alone

    EXPECT_FALSE(kel::Exception::kf_tryCatch(
        [] { throw kel::Exception("NSInvalidArgumentException", "index 3 beyond bounds"); },
        &error));
    EXPECT_EQ(error, kel::DomainError("NSInvalidArgumentException", 0,
                                      {{"reason", "index 3 beyond bounds"}}));

    struct RangeException : kel::Exception {
        RangeException() : kel::Exception("NSRangeException") {}
    };
    EXPECT_FALSE(kel::Exception::kf_tryCatch([] { throw RangeException(); }, &error));
    EXPECT_EQ(error, kel::DomainError("NSRangeException", 0, {{"reason", "unknown"}}));
    EXPECT_FALSE(kel::Exception::kf_tryCatch([] { throw RangeException(); }, nullptr));

    // Other exceptions pass through unchanged and leave the error alone.
    error = untouched;
    EXPECT_THROW(kel::Exception::kf_tryCatch([] { throw std::logic_error("other"); }, &error),
                 std::logic_error);
    EXPECT_THROW(kel::Exception::kf_tryCatch([] { throw untouched; }, &error), kel::DomainError);
    EXPECT_EQ(error, untouched);
}

}  // namespace
