// kel::StartupTaskGroup — the name of a group of start-up tasks.
//
// Two groups are equal exactly when their identifiers are; std::hash hashes the identifier, so
// groups key unordered containers. StartupTaskGroup::default_() ("default") is the group of
// every task that names none; StartupTaskGroup::all() ("all") is the pseudo-group whose promise
// stands for every group together. Both are built once, on first use.
//
// Thread rules: a value type; the two predefined groups may be read from any thread.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

#include "kel/Export.hpp"

namespace kel {

class KEL_EXPORT StartupTaskGroup {
  public:
    explicit StartupTaskGroup(std::string identifier) : identifier_(std::move(identifier)) {}

    static const StartupTaskGroup& default_();
    static const StartupTaskGroup& all();

    const std::string& identifier() const noexcept { return identifier_; }

    friend bool operator==(const StartupTaskGroup&, const StartupTaskGroup&) = default;

  private:
    std::string identifier_;
};

}  // namespace kel

template <>
struct std::hash<kel::StartupTaskGroup> {
    std::size_t operator()(const kel::StartupTaskGroup& group) const noexcept {
        return std::hash<std::string>{}(group.identifier());
    }
};
