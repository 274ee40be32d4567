#include "kel/Platform/DomainError.hpp"
#include "kel/Platform/Error.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <unordered_set>

#include "kel/Concurrency/AsyncObjectApplicator.hpp"
#include "kel/Concurrency/AsyncOperationError.hpp"
#include "kel/Promises/PromiseError.hpp"

namespace {

struct CustomError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

TEST(ErrorValues, DescribesEveryThrownValueAndMatchesByTypeIncludingBases) {
    EXPECT_EQ(kel::errorDescription(kel::makeError(std::runtime_error("boom"))), "boom");
    EXPECT_EQ(kel::errorDescription(std::make_exception_ptr(std::string("text"))), "text");
    EXPECT_EQ(kel::errorDescription(std::make_exception_ptr("literal")), "literal");
    EXPECT_EQ(kel::errorDescription(std::make_exception_ptr(7)), "unknown error");
    EXPECT_EQ(kel::errorDescription(kel::Error{}), "no error");

    // Tests and extractions by type include base classes.
    kel::Error error = kel::makeError(CustomError("custom"));
    EXPECT_TRUE(kel::errorIs<CustomError>(error));
    EXPECT_TRUE(kel::errorIs<std::runtime_error>(error));
    EXPECT_FALSE(kel::errorIs<std::logic_error>(error));
    EXPECT_FALSE(kel::errorIs<CustomError>(kel::Error{}));

    auto extracted = kel::errorAs<CustomError>(error);
    ASSERT_TRUE(extracted.has_value());
    EXPECT_STREQ(extracted->what(), "custom");
    EXPECT_FALSE(kel::errorAs<std::logic_error>(error).has_value());
    EXPECT_FALSE(kel::errorAs<CustomError>(kel::Error{}).has_value());
}

// The case-only errors: thrown as their named constants, caught by type, compared and hashed by
// case, described by the case's own text.
TEST(CaseError, CasesCompareHashAndDescribeThemselves) {
    kel::Error thrown = kel::makeError(kel::PromiseError::abandoned);
    auto caught = kel::errorAs<kel::PromiseError>(thrown);
    ASSERT_TRUE(caught.has_value());
    EXPECT_TRUE(*caught == kel::PromiseError::abandoned);
    EXPECT_FALSE(*caught == kel::PromiseError::cancelled);
    EXPECT_EQ(kel::errorDescription(thrown), "PromiseError.abandoned");
    EXPECT_STREQ(kel::PromiseError::cancelled.what(), "PromiseError.cancelled");
    EXPECT_STREQ(kel::AsyncOperationError::cancelled.what(), "AsyncOperationError.cancelled");
    using ApplicatorErrors = kel::AsyncObjectApplicator<int, int>::Errors;
    EXPECT_STREQ(ApplicatorErrors::cancelled.what(), "AsyncObjectApplicator.Errors.cancelled");

    std::unordered_set<kel::PromiseError> seen{
        kel::PromiseError::cancelled, kel::PromiseError::abandoned, kel::PromiseError::cancelled};
    EXPECT_EQ(seen.size(), 2U);
    EXPECT_TRUE(seen.contains(kel::PromiseError::abandoned));
}

TEST(DomainError, DescribesItselfAndComparesDomainCodeAndUserInfo) {
    EXPECT_STREQ(kel::DomainError("NSURLErrorDomain", -1001).what(),
                 "The operation couldn’t be completed. (NSURLErrorDomain error -1001.)");
    kel::DomainError described("app", 3,
                               {{kel::DomainError::localizedDescriptionKey, "Disk full"}});
    EXPECT_STREQ(described.what(), "Disk full");

    EXPECT_EQ(kel::DomainError("d", 1), kel::DomainError("d", 1));
    EXPECT_NE(kel::DomainError("d", 1), kel::DomainError("d", 2));
    EXPECT_NE(kel::DomainError("d", 1), kel::DomainError("e", 1));
    EXPECT_NE(kel::DomainError("d", 1, {{"reason", "x"}}), kel::DomainError("d", 1));
}

}  // namespace
