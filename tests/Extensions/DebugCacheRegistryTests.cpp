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

// A log line as the tests compare it: level and the message as the system log shows it, with
// private arguments redacted.
struct Line {
    LogLevel level;
    std::string message;
    friend bool operator==(const Line&, const Line&) = default;
};
using Lines = std::vector<Line>;

void PrintTo(const Line& line, std::ostream* out) {
    *out << (line.level == LogLevel::error ? "[error] " : "[default] ") << line.message;
}

const Line clearingFiles{LogLevel::default_, "clearing cache files"};
const Line removingFile{LogLevel::default_, "removing cache file: <private>"};
const Line failed{LogLevel::error,
                  "failed to remove cache file with error: No such file or directory"};
const Line clearingKeys{LogLevel::default_, "clearing cache user defaults entries"};
const Line removingKey{LogLevel::default_, "removing cache user defaults key: <private>"};

// The line with its argument shown.
std::string removing(const fs::path& file) {
    return "removing cache file: " + DebugCacheRegistry::fileURL(file);
}

class DebugCacheRegistryClear : public ::testing::Test {
  protected:
    // Runs clear() and returns its log lines; shown_ receives them with every argument shown.
    Lines clear() {
        auto capture = std::make_shared<kel::CapturingLogSink>();
        kel::ScopedLogSink scope(capture);
        registry_.clear();
        shown_ = capture->messages();
        Lines lines;
        for (const kel::LogRecord& record : capture->records()) {
            lines.push_back({record.level, record.message(true)});
        }
        return lines;
    }

    fs::path touch(const fs::path& name) {
        fs::path file = directory_ / name;
        fs::create_directories(file.parent_path());
        std::ofstream(file) << "cached";
        return file;
    }

    kel::test::ScratchDirectory directory_;
    DebugCacheRegistry registry_;
    std::vector<std::string> shown_;
};

// Nothing registered, an unlistable directory or a non-file URL log only the clearing lines.
// A raw NUL inside a registered URL would cut the path short: "dir\0/cache.bin" would remove the
// directory "dir" and everything in it; such URLs remove nothing.
TEST_F(DebugCacheRegistryClear, NothingRegisteredUnlistableOrNulCarryingEntriesRemoveNothing) {
    EXPECT_EQ(clear(), (Lines{clearingFiles, clearingKeys}));
    touch("plain-file");
    registry_.registerContentsOfDirectory(directory_ / "missing");
    registry_.registerContentsOfDirectory(directory_ / "plain-file");
    registry_.registerContentsOfDirectoryURL("https://example.com/cache/");
    EXPECT_EQ(clear(), (Lines{clearingFiles, clearingKeys}));
    EXPECT_TRUE(fs::exists(directory_ / "plain-file"));

    fs::path kept = touch("dir/cache.bin");
    using namespace std::string_literals;
    const std::string nulInside = DebugCacheRegistry::fileURL(directory_ / "dir") + "\0/cache.bin"s;
    EXPECT_EQ(DebugCacheRegistry::filePath(nulInside), std::nullopt);
    registry_.registerFileURL(nulInside);
    registry_.registerFileURL(DebugCacheRegistry::fileURL(directory_ / "plain-file") + "\0.tmp"s);
    clear();
    EXPECT_TRUE(fs::exists(kept)) << "NUL inside the path";
    EXPECT_TRUE(fs::exists(directory_ / "plain-file")) << "NUL after the path";
}

// A file already gone logs its failure publicly and the next one is still removed. The
// registrations are kept, so a second clear tries the same files and keys again.
TEST_F(DebugCacheRegistryClear, FailuresAreLoggedAndEveryClearRemovesTheSameFilesAndKeys) {
    fs::path gone = directory_ / "gone.cache";
    fs::path present = touch("present %.cache");
    auto defaults = kel::UserDefaults::atPath(directory_ / "defaults.json");
    defaults->set("lastSync", 12);
    defaults->set("keep", true);
    registry_.registerFile(gone);
    registry_.registerFileURL(DebugCacheRegistry::fileURL(present));
    registry_.registerUserDefaultsKey("lastSync", defaults);

    ASSERT_EQ(clear(), (Lines{clearingFiles, removingFile, failed, removingFile, clearingKeys,
                              removingKey}));
    EXPECT_EQ(shown_[1], removing(gone));
    EXPECT_EQ(shown_[3], removing(present));
    EXPECT_EQ(shown_[5], "removing cache user defaults key: lastSync");
    EXPECT_FALSE(fs::exists(present));
    EXPECT_EQ(defaults->dictionaryRepresentation(), (nlohmann::json{{"keep", true}}));

    defaults->set("lastSync", 13);
    EXPECT_EQ(clear(), (Lines{clearingFiles, removingFile, failed, removingFile, failed,
                              clearingKeys, removingKey}));
    EXPECT_EQ(defaults->object("lastSync"), std::nullopt);
}

TEST_F(DebugCacheRegistryClear, DirectoryContentsAreAShallowSnapshotIncludingHiddenEntries) {
    fs::path cache = directory_ / "cache";
    touch("cache/a.json");
    touch("cache/.hidden");
    touch("cache/nested/deep.json");
    registry_.registerContentsOfDirectory(cache);
    fs::path later = touch("cache/later.json");

    ASSERT_EQ(clear().size(), 5u);
    std::sort(shown_.begin() + 1, shown_.end() - 1);
    EXPECT_EQ(std::vector(shown_.begin() + 1, shown_.end() - 1),
              (std::vector{removing(cache / ".hidden"), removing(cache / "a.json"),
                           removing(cache / "nested")}));
    EXPECT_EQ(std::distance(fs::directory_iterator(cache), {}), 1) << "only later.json is left";
    EXPECT_TRUE(fs::exists(later));
}

TEST(DebugCacheRegistryURLs, PathsAndFileURLsRoundTrip) {
    EXPECT_EQ(DebugCacheRegistry::fileURL("/tmp/a b/ü%.json"), "file:///tmp/a%20b/%C3%BC%25.json");
    EXPECT_EQ(DebugCacheRegistry::filePath("file:///tmp/a%20b/%C3%BC%25.json"),
              fs::path("/tmp/a b/ü%.json"));
    EXPECT_EQ(DebugCacheRegistry::filePath("FILE://localhost/x"), fs::path("/x"));
    for (const char* notLocal : {"file://server/share", "/plain/path", "file:///a%00b"}) {
        EXPECT_EQ(DebugCacheRegistry::filePath(notLocal), std::nullopt) << notLocal;
    }
}

}  // namespace
