#include "kel/Platform/UserDefaults.hpp"

#include "kel/Platform/Log.hpp"

#include "ScopedEnvironment.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

using nlohmann::json;

std::string readFile(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
}

class UserDefaultsStore : public ::testing::Test {
  protected:
    kel::testing::ScratchDirectory directory_;
    std::filesystem::path file_ = directory_ / "settings" / "app.json";
};

TEST_F(UserDefaultsStore, ValuesSurviveAReopenAndReadBackTyped) {
    const json nested = {{"theme", "dark"}, {"sizes", {1, 2, 3}}};
    {
        auto defaults = kel::UserDefaults::atPath(file_);
        defaults->set("name", "Ada");
        defaults->set("launches", 3);
        defaults->set("enabled", true);
        defaults->set("nested", nested);
        defaults->set("temporary", "gone soon");
        defaults->removeObject("temporary");
    }
    auto reopened = kel::UserDefaults::atPath(file_);
    EXPECT_EQ(reopened->dictionaryRepresentation(),
              (json{{"name", "Ada"}, {"launches", 3}, {"enabled", true}, {"nested", nested}}));
    EXPECT_EQ(reopened->value<std::string>("name"), "Ada");
    EXPECT_EQ(reopened->value<int>("launches"), 3);
    EXPECT_EQ(reopened->value<int>("name"), std::nullopt);
}

// Two stores for one file would each write their own keys and lose the other's.
TEST_F(UserDefaultsStore, OneStorePerFileAndConcurrentWritersLoseNoKey) {
    auto first = kel::UserDefaults::atPath(file_);
    auto second =
        kel::UserDefaults::atPath(directory_ / "settings" / ".." / "settings" / "app.json");
    EXPECT_EQ(first, second);
    std::vector<std::jthread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([store = t % 2 == 0 ? first : second, t] {
            for (int i = 0; i < 10; ++i) {
                store->set(std::to_string(t) + "-" + std::to_string(i), i);
            }
        });
    }
    writers.clear();  // joins
    first.reset();
    second.reset();
    EXPECT_EQ(kel::UserDefaults::atPath(file_)->dictionaryRepresentation().size(), 40u);
}

TEST_F(UserDefaultsStore, ACrashWhileWritingLeavesTheOldFileIntact) {
    auto defaults = kel::UserDefaults::atPath(file_);
    defaults->set("version", 1);
    defaults->set("version", 2);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(file_.parent_path()), {}), 1)
        << "a successful write leaves no temporary file";
    const std::string before = readFile(file_);

    // The child dies of SIGXFSZ while writing new contents that outgrow its file-size limit:
    // a crash after the write began and before the rename.
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        signal(SIGXFSZ, SIG_DFL);
        rlimit limit{4096, 4096};
        setrlimit(RLIMIT_FSIZE, &limit);
        defaults->set("payload", std::string(64 * 1024, 'x'));
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ);

    EXPECT_EQ(readFile(file_), before);
    defaults.reset();
    auto reopened = kel::UserDefaults::atPath(file_);
    EXPECT_EQ(reopened->dictionaryRepresentation(), (json{{"version", 2}}));
    // The half-written temporary file left behind does not stop later writes.
    reopened->set("version", 3);
    EXPECT_EQ(json::parse(readFile(file_)), (json{{"version", 3}}));
}

TEST_F(UserDefaultsStore, AnUnreadableFileOpensEmptyAndIsReplacedByTheNextChange) {
    std::filesystem::create_directories(file_.parent_path());
    std::ofstream(file_) << "{ not json";
    auto capture = std::make_shared<kel::CapturingLogSink>();
    kel::ScopedLogSink scope(capture);

    auto defaults = kel::UserDefaults::atPath(file_);
    EXPECT_EQ(defaults->dictionaryRepresentation(), json::object());
    ASSERT_EQ(capture->records().size(), 1u);
    EXPECT_EQ(capture->records()[0].level, kel::LogLevel::error);
    defaults->set("fresh", true);
    EXPECT_EQ(json::parse(readFile(file_)), (json{{"fresh", true}}));
}

TEST(UserDefaultsStandard, LivesInTheUserConfigurationDirectoryNamedAfterTheProgram) {
    kel::testing::ScopedEnvironment environment;
    environment.set("XDG_CONFIG_HOME", "/xdg/config").set("HOME", "/home/someone");
    std::string file = std::string(program_invocation_short_name) + ".json";
    EXPECT_EQ(kel::UserDefaults::standardPath(), std::filesystem::path("/xdg/config") / file);
    // A relative XDG_CONFIG_HOME is invalid and ignored.
    environment.set("XDG_CONFIG_HOME", "relative/config");
    EXPECT_EQ(kel::UserDefaults::standardPath(),
              std::filesystem::path("/home/someone/.config") / file);
}

}  // namespace
