// kel::ProcessInfo — a process's arguments and environment, and typed reads of them.
//
// ProcessInfo::processInfo() reads the running process (its arguments from /proc/self/cmdline,
// its environment from `environ`) at the time of the call; tests build one from explicit lists.
// Typed reads, for any ProcessInfoValueType T:
//   launchArgument<T>(key)      the argument after the first "-key", parsed; none when "-key" is
//                               missing or last, or the next argument begins with "-" (so a
//                               negative number cannot be passed this way);
//   launchArguments<T>(key)     every such value, in argument order, skipping those that do not
//                               parse;
//   environmentVariable<T>(key) the variable named "-key" (the dash is part of the name, as for
//                               arguments), parsed.
//
// Thread rules: a value type; copies may travel to any thread. processInfo() reads `environ`,
// which setenv on another thread would race with, as with getenv.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kel/Export.hpp"
#include "kel/Networking/ProcessInfoValueType.hpp"

namespace kel {

class KEL_EXPORT ProcessInfo {
  public:
    ProcessInfo(std::vector<std::string> arguments, std::map<std::string, std::string> environment)
        : arguments_(std::move(arguments)), environment_(std::move(environment)) {}

    static ProcessInfo processInfo();

    const std::vector<std::string>& arguments() const noexcept { return arguments_; }
    const std::map<std::string, std::string>& environment() const noexcept { return environment_; }

    template <ProcessInfoValueType T>
    std::optional<T> launchArgument(std::string_view key) const {
        for (std::size_t i = 0; i < arguments_.size(); ++i) {
            if (isFlag(arguments_[i], key)) {
                if (i + 1 < arguments_.size() && !arguments_[i + 1].starts_with('-')) {
                    return ProcessInfoValue<T>::from(arguments_[i + 1]);
                }
                return std::nullopt;
            }
        }
        return std::nullopt;
    }

    template <ProcessInfoValueType T>
    std::vector<T> launchArguments(std::string_view key) const {
        std::vector<T> values;
        for (std::size_t i = 0; i < arguments_.size(); ++i) {
            if (isFlag(arguments_[i], key) && i + 1 < arguments_.size() &&
                !arguments_[i + 1].starts_with('-')) {
                if (auto value = ProcessInfoValue<T>::from(arguments_[i + 1])) {
                    values.push_back(std::move(*value));
                }
            }
        }
        return values;
    }

    template <ProcessInfoValueType T>
    std::optional<T> environmentVariable(std::string_view key) const {
        auto it = environment_.find("-" + std::string(key));
        if (it == environment_.end()) {
            return std::nullopt;
        }
        return ProcessInfoValue<T>::from(it->second);
    }

  private:
    static bool isFlag(std::string_view argument, std::string_view key) {
        return argument.size() == key.size() + 1 && argument.front() == '-' &&
               argument.substr(1) == key;
    }

    std::vector<std::string> arguments_;
    std::map<std::string, std::string> environment_;
};

}  // namespace kel
