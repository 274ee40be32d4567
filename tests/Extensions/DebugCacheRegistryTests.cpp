#include "kel/Extensions/DebugCacheRegistry.hpp"

#include "kel/Platform/Log.hpp"

#include "ScopedEnvironment.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using kel::DebugCacheRegistry;
using kel::LogLevel;

constexpr const char* clearingFiles = "clearing cache files";
constexpr const char* removingFile = "removing cache file: %@";
constexpr const char* removalFailed = "failed to remove cache file with error: %{public}@";
constexpr const char* clearingKeys = "clearing cache user defaults entries";
constexpr const char* removingKey = "removing cache user defaults key: %@";
constexpr const char* noSuchFile = "No such file or directory";

// A log line as the tests compare it: level and the message as the system log shows it, with
// private arguments redacted.
struct Line {
    LogLevel level;
    std::string message;
    friend bool operator==(const Line&, const Line&) = default;
};

void PrintTo(const Line& line, std::ostream* out) {
    *out << (line.level == LogLevel::error ? "[error] " : "[default] ") << line.message;
}

Line line(LogLevel level, const char* format, std::vector<kel::LogArgument> arguments = {}) {
    return {level, kel::renderLogMessage(format, arguments, true)};
}

const Line clearingFilesLine = line(LogLevel::default_, clearingFiles);
const Line clearingKeysLine = line(LogLevel::default_, clearingKeys);
const Line removingFileLine = line(LogLevel::default_, removingFile, {"redacted"});
const Line failedLine = line(LogLevel::error, removalFailed, {noSuchFile});

class DebugCacheRegistryClear : public ::testing::Test {
  protected:
    // Runs clear() and returns its log lines; `shown` receives them with every argument shown.
    std::vector<Line> clear(std::vector<std::string>* shown = nullptr) {
        auto capture = std::make_shared<kel::CapturingLogSink>();
        kel::ScopedLogSink scope(capture);
        registry_.clear();
        std::vector<Line> lines;
        for (const kel::LogRecord& record : capture->records()) {
            lines.push_back({record.level, record.message(true)});
        }
        if (shown != nullptr) {
            *shown = capture->messages();
        }
        return lines;
    }

    fs::path touch(const fs::path& name) {
        fs::path file = directory_ / name;
        fs::create_directories(file.parent_path());
        std::ofstream(file) << "cached";
        return file;
    }

    kel::testing::ScratchDirectory directory_;
    DebugCacheRegistry registry_;
};

TEST_F(DebugCacheRegistryClear, NothingRegisteredOrAnUnlistableDirectoryLogsOnlyTheClearingLines) {
    EXPECT_EQ(clear(), (std::vector<Line>{clearingFilesLine, clearingKeysLine}));
    touch("plain-file");
    registry_.registerContentsOfDirectory(directory_ / "missing");
    registry_.registerContentsOfDirectory(directory_ / "plain-file");
    registry_.registerContentsOfDirectoryURL("https://example.com/cache/");
    EXPECT_EQ(clear(), (std::vector<Line>{clearingFilesLine, clearingKeysLine}));
    EXPECT_TRUE(fs::exists(directory_ / "plain-file"));
}

TEST_F(DebugCacheRegistryClear, AMissingFileIsLoggedPubliclyAndTheNextOneIsStillRemoved) {
    fs::path gone = directory_ / "gone.cache";
    fs::path present = touch("present.cache");
    registry_.registerFile(gone);
    registry_.registerFile(present);

    std::vector<std::string> shown;
    EXPECT_EQ(clear(&shown), (std::vector<Line>{clearingFilesLine, removingFileLine, failedLine,
                                                removingFileLine, clearingKeysLine}));
    EXPECT_EQ(shown[1], "removing cache file: " + DebugCacheRegistry::fileURL(gone));
    EXPECT_EQ(shown[3], "removing cache file: " + DebugCacheRegistry::fileURL(present));
    EXPECT_FALSE(fs::exists(present));
}

TEST_F(DebugCacheRegistryClear, DirectoryContentsAreAShallowSnapshotIncludingHiddenEntries) {
    fs::path cache = directory_ / "cache";
    touch("cache/a.json");
    touch("cache/.hidden");
    touch("cache/nested/deep.json");
    registry_.registerContentsOfDirectory(cache);
    fs::path later = touch("cache/later.json");

    std::vector<std::string> shown;
    ASSERT_EQ(clear(&shown).size(), 5u);
    std::vector<std::string> removed(shown.begin() + 1, shown.end() - 1);
    std::sort(removed.begin(), removed.end());
    std::vector<std::string> expected;
    for (const char* name : {".hidden", "a.json", "nested"}) {
        expected.push_back("removing cache file: " + DebugCacheRegistry::fileURL(cache / name));
    }
    EXPECT_EQ(removed, expected);
    EXPECT_EQ(std::distance(fs::directory_iterator(cache), {}), 1) << "only later.json is left";
    EXPECT_TRUE(fs::exists(later));
}

TEST_F(DebugCacheRegistryClear, ASecondClearRemovesTheSameFilesAndKeysAgain) {
    fs::path file = touch("data.cache");
    auto defaults = kel::UserDefaults::atPath(directory_ / "defaults.json");
    defaults->set("lastSync", 12);
    defaults->set("keep", true);
    registry_.registerFile(file);
    registry_.registerUserDefaultsKey("lastSync", defaults);
    const Line removingKeyLine = line(LogLevel::default_, removingKey, {"lastSync"});

    EXPECT_EQ(clear(), (std::vector<Line>{clearingFilesLine, removingFileLine, clearingKeysLine,
                                          removingKeyLine}));
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(defaults->dictionaryRepresentation(), (nlohmann::json{{"keep", true}}));

    defaults->set("lastSync", 13);
    EXPECT_EQ(clear(), (std::vector<Line>{clearingFilesLine, removingFileLine, failedLine,
                                          clearingKeysLine, removingKeyLine}));
    EXPECT_EQ(defaults->object("lastSync"), std::nullopt);
}

TEST_F(DebugCacheRegistryClear, FileURLsAreDecodedAndOtherSchemesFailToRemove) {
    fs::path spaced = touch("with space%.cache");
    fs::path local = touch("local.cache");
    registry_.registerFileURL(DebugCacheRegistry::fileURL(spaced));
    registry_.registerFileURL("file://localhost" + local.string());
    registry_.registerFileURL("https://example.com/cache.json");

    std::vector<Line> lines = clear();
    EXPECT_FALSE(fs::exists(spaced));
    EXPECT_FALSE(fs::exists(local));
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[4].level, LogLevel::error);
}

TEST(DebugCacheRegistryURLs, PathsAndFileURLsRoundTrip) {
    EXPECT_EQ(DebugCacheRegistry::fileURL("/tmp/a b/ü%.json"), "file:///tmp/a%20b/%C3%BC%25.json");
    EXPECT_EQ(DebugCacheRegistry::filePath("file:///tmp/a%20b/%C3%BC%25.json"),
              fs::path("/tmp/a b/ü%.json"));
    EXPECT_EQ(DebugCacheRegistry::filePath("FILE://localhost/x"), fs::path("/x"));
    for (const char* notLocal : {"file://server/share", "/plain/path", "file:///a%00b"}) {
        EXPECT_EQ(DebugCacheRegistry::filePath(notLocal), std::nullopt) << notLocal;
    }
    EXPECT_EQ(DebugCacheRegistry::fileURL("relative"),
              DebugCacheRegistry::fileURL(fs::current_path() / "relative"));
}

}  // namespace
