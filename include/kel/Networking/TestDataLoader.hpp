// kel::TestDataLoader<L> — loads a JSON fixture named by a locator and decodes it on a
// background queue.
//
// L is a TestDataLocatorType: its filePath() is the fixture's name or relative path without
// ".json". The fixture is <contentDirectory>/<filePath>.json, or, without a content directory,
// <documents>/TestContent/<filePath>.json, where <documents> is $XDG_DOCUMENTS_DIR (a leading
// "~" or "$HOME" expanded) or else ~/Documents. The constructor throws
// TestDataError::missingTestData when no file is there. loadDataWithType<T>() reads and decodes
// the file on the global concurrent queue: the promise is rejected with missingTestData when
// the file cannot be read and with invalidTestData(error) when decoding throws.
//
// Thread rules: immutable after construction; loadDataWithType may be called from any thread.
#pragma once

#include <concepts>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "kel/Export.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/Error.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {

template <class L>
concept TestDataLocatorType = requires(const L& locator) {
    { locator.filePath() } -> std::convertible_to<std::string>;
};

// TestDataLoader<L>::TestDataError: invalidTestData(error) carries the decoder's error;
// missingTestData has no payload. Equality compares the case and the carried error.
class KEL_EXPORT TestDataError : public std::exception {
  public:
    enum class Case { invalidTestData, missingTestData };

    static TestDataError invalidTestData(Error error) {
        return TestDataError(Case::invalidTestData, std::move(error));
    }
    static const TestDataError missingTestData;

    Case value() const noexcept { return case_; }
    // The decoder's error of invalidTestData; null for missingTestData.
    const Error& error() const noexcept { return error_; }

    const char* what() const noexcept override {
        return case_ == Case::invalidTestData ? "invalidTestData" : "missingTestData";
    }

    friend bool operator==(const TestDataError& a, const TestDataError& b) {
        return a.case_ == b.case_ && a.error_ == b.error_;
    }

  private:
    TestDataError(Case value, Error error) : case_(value), error_(std::move(error)) {}

    Case case_;
    Error error_;
};

inline const TestDataError TestDataError::missingTestData{Case::missingTestData, nullptr};

namespace runtime {
// $XDG_DOCUMENTS_DIR with "~" or "$HOME" expanded, else ~/Documents; no home at all is fatal.
KEL_EXPORT std::filesystem::path documentsDirectory();
}  // namespace runtime

template <TestDataLocatorType L>
class TestDataLoader {
  public:
    using TestDataError = kel::TestDataError;

    explicit TestDataLoader(const L& locator,
                            std::optional<std::filesystem::path> contentDirectory = std::nullopt) {
        std::string name = std::string(locator.filePath()) + ".json";
        filePath_ = contentDirectory
                        ? contentDirectory->string() + "/" + name
                        : (runtime::documentsDirectory() / "TestContent").string() + "/" + name;
        std::error_code ignored;
        if (!std::filesystem::exists(filePath_, ignored)) {
            throw TestDataError::missingTestData;
        }
    }

    const std::string& filePath() const noexcept { return filePath_; }

    template <class T>
    requires requires(const nlohmann::json& json, const T& value) {
        json.get<T>();
        nlohmann::json(value);
    }
    Promise<T> loadDataWithType() const {
        return Promise<T>([path = filePath_](auto fulfill, auto reject) {
            DispatchQueue::global().async(
                [path, fulfill = std::move(fulfill), reject = std::move(reject)]() mutable {
                    std::ifstream file(path, std::ios::binary);
                    std::string bytes((std::istreambuf_iterator<char>(file)),
                                      std::istreambuf_iterator<char>());
                    if (!file.is_open() || file.bad()) {
                        reject(makeError(TestDataError::missingTestData));
                        return;
                    }
                    std::optional<T> value;
                    try {
                        value.emplace(nlohmann::json::parse(bytes).template get<T>());
                    } catch (...) {
                        reject(makeError(TestDataError::invalidTestData(std::current_exception())));
                        return;
                    }
                    fulfill(std::move(*value));
                });
        });
    }

  private:
    std::string filePath_;
};

}  // namespace kel
