// kel::Container::TestSuite and kel::Container::Environment — the environment a container runs
// in, which picks the testing factories of its definitions.
//
// Defined outside Container (as ContainerTestSuite and ContainerEnvironment) so that
// definitions can name them without the whole container; always spell them Container::TestSuite
// and Container::Environment.
//
// Thread rules: values.
#pragma once

#include "kel/Export.hpp"
#include "kel/Extensions/OptionSet.hpp"

#include <optional>
#include <string>

namespace kel {

struct KEL_EXPORT ContainerTestSuite : OptionSet<ContainerTestSuite, long> {
    using OptionSet::OptionSet;

    static const ContainerTestSuite performance;
    static const ContainerTestSuite automation;
    static const ContainerTestSuite all;

    // "all" when every bit of `all` is set, else "automation", else "performance", else "unknown".
    std::string description() const;
};
inline constexpr ContainerTestSuite ContainerTestSuite::performance{1};
inline constexpr ContainerTestSuite ContainerTestSuite::automation{2};
inline constexpr ContainerTestSuite ContainerTestSuite::all{3};

class KEL_EXPORT ContainerEnvironment {
  public:
    static ContainerEnvironment normal() { return ContainerEnvironment(std::nullopt); }
    static ContainerEnvironment testing(ContainerTestSuite suite) {
        return ContainerEnvironment(suite);
    }

    bool isNormal() const noexcept { return !suite_; }
    // The suite of a testing environment; absent for normal.
    const std::optional<ContainerTestSuite>& suite() const noexcept { return suite_; }

    // "normal", or "testing (<suite description>)".
    std::string description() const;

    friend bool operator==(const ContainerEnvironment&, const ContainerEnvironment&) = default;

  private:
    explicit ContainerEnvironment(std::optional<ContainerTestSuite> suite) : suite_(suite) {}

    std::optional<ContainerTestSuite> suite_;
};

}  // namespace kel
