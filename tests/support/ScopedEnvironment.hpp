// Test helpers: a scratch directory removed with its contents at the end of the test, and
// environment variables set for the duration of a test (then restored, with tzset() so that
// TZ changes apply). The environment is process-wide: use these on the test's main thread.
#pragma once

#include <stdlib.h>
#include <time.h>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kel::test {

class ScratchDirectory {
  public:
    ScratchDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kel-test-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::filesystem::path& name) const {
        return path_ / name;
    }

  private:
    std::filesystem::path path_;
};

class ScopedEnvironment {
  public:
    ScopedEnvironment() = default;
    ~ScopedEnvironment() {
        for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
            assign(it->first, it->second);
        }
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

    // Sets `name` to `value`, or removes it when `value` is std::nullopt.
    ScopedEnvironment& set(const std::string& name, std::optional<std::string> value) {
        const char* previous = ::getenv(name.c_str());
        saved_.emplace_back(name, previous ? std::optional<std::string>(previous) : std::nullopt);
        assign(name, value);
        return *this;
    }

  private:
    static void assign(const std::string& name, const std::optional<std::string>& value) {
        value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
        ::tzset();
    }

    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

}  // namespace kel::test
