#include "kel/Platform/UserDefaults.hpp"

#include "kel/Platform/DomainError.hpp"
#include "kel/Platform/Log.hpp"

#include "ScopedEnvironment.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using nlohmann::json;

std::set<std::string> entries(const std::filesystem::path& directory) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

// Waits for a child process and returns its wait status.
int waitFor(pid_t child) {
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

// Runs `body` in a forked child that exits with what it returns; gives the child's wait status.
template <class Body>
int inChild(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    return waitFor(child);
}

// The code of an error of the store's domain, or -1 for any other error or none.
int errorCode(const kel::Error& error) {
    auto domainError = kel::errorAs<kel::DomainError>(error);
    return domainError && domainError->domain() == kel::UserDefaults::errorDomain
               ? domainError->code()
               : -1;
}

constexpr int kWriterKeys = 40;  // keys each helper writer process adds

std::string readFile(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
}

class UserDefaultsStore : public ::testing::Test {
  protected:
    kel::test::ScratchDirectory directory_;
    std::filesystem::path file_ = directory_ / "settings" / "app.json";
    std::shared_ptr<kel::CapturingLogSink> log_ = std::make_shared<kel::CapturingLogSink>();
    kel::ScopedLogSink logScope_{log_};
};

// Values survive a reopen and read back typed. The JSON library's own conversion casts without a
// range check: a number the requested type cannot hold must give no value.
TEST_F(UserDefaultsStore, ValuesSurviveAReopenAndReadBackTypedWithinRange) {
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

    const json numbers = {
        {"huge", 1e300}, {"big", 1LL << 40}, {"negative", -1}, {"edge", -2147483648.5}};
    for (const auto& [key, number] : numbers.items()) {
        ASSERT_EQ(reopened->set(key, number), nullptr) << key;
    }
    EXPECT_EQ(reopened->value<int>("huge"), std::nullopt);
    EXPECT_EQ(reopened->value<int>("big"), std::nullopt);
    EXPECT_EQ(reopened->value<long long>("big"), 1LL << 40);
    EXPECT_EQ(reopened->value<unsigned>("negative"), std::nullopt);
    EXPECT_EQ(reopened->value<int>("edge"), -2147483647 - 1);
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

TEST_F(UserDefaultsStore, ACrashWhileWritingLeavesTheOldFileIntactAndTheNextWriterCleansUp) {
    auto defaults = kel::UserDefaults::atPath(file_);
    ASSERT_EQ(defaults->set("version", 1), nullptr);
    std::filesystem::permissions(file_, std::filesystem::perms(0640));
    ASSERT_EQ(defaults->set("version", 2), nullptr);
    EXPECT_EQ(entries(file_.parent_path()), (std::set<std::string>{".app.json.lock", "app.json"}))
        << "a successful write leaves no temporary file";
    EXPECT_EQ(std::filesystem::status(file_).permissions(), std::filesystem::perms(0640))
        << "the replaced file's mode is kept";
    const std::string before = readFile(file_);

    // The child dies of SIGXFSZ while writing new contents that outgrow its file-size limit:
    // a crash after the write began and before the rename.
    const int status = inChild([&] {
        signal(SIGXFSZ, SIG_DFL);
        rlimit limit{4096, 4096};
        setrlimit(RLIMIT_FSIZE, &limit);
        (void)defaults->set("payload", std::string(64 * 1024, 'x'));
        return 0;
    });
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ);
    EXPECT_EQ(readFile(file_), before);
    EXPECT_EQ(entries(file_.parent_path()).size(), 3u) << "the crashed write's temporary file";

    defaults.reset();
    auto reopened = kel::UserDefaults::atPath(file_);
    EXPECT_EQ(reopened->dictionaryRepresentation(), (json{{"version", 2}}));
    EXPECT_EQ(reopened->set("version", 3), nullptr);
    EXPECT_EQ(json::parse(readFile(file_)), (json{{"version", 3}}));
    EXPECT_EQ(entries(file_.parent_path()), (std::set<std::string>{".app.json.lock", "app.json"}));
}

TEST_F(UserDefaultsStore, AnUnparsableFileIsMovedAsideNeverOverwritten) {
    std::filesystem::create_directories(file_.parent_path());
    std::ofstream(file_.string() + ".corrupt") << "an older corrupt copy";
    std::ofstream(file_) << "{ not json";

    auto defaults = kel::UserDefaults::atPath(file_);
    EXPECT_EQ(defaults->dictionaryRepresentation(), json::object());
    EXPECT_EQ(defaults->set("fresh", true), nullptr);
    EXPECT_EQ(json::parse(readFile(file_)), (json{{"fresh", true}}));
    EXPECT_EQ(readFile(file_.string() + ".corrupt"), "an older corrupt copy");
    EXPECT_EQ(readFile(file_.string() + ".corrupt.1"), "{ not json");
    ASSERT_EQ(log_->records().size(), 2u);
    EXPECT_EQ(log_->records()[1].level, kel::LogLevel::error);
    EXPECT_NE(log_->messages()[1].find(file_.string() + ".corrupt.1"), std::string::npos);
}

// Root changing another user's store leaves the file that user's, with its mode, or the user
// could no longer write it.
TEST_F(UserDefaultsStore, RootKeepsTheOwnerOfAnotherUsersStore) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to write another user's file";
    }
    auto defaults = kel::UserDefaults::atPath(file_);
    ASSERT_EQ(defaults->set("version", 1), nullptr);
    ASSERT_EQ(::chown(file_.c_str(), 65534, 65534), 0);
    ASSERT_EQ(::chmod(file_.c_str(), 0640), 0);
    ASSERT_EQ(defaults->set("version", 2), nullptr);
    struct stat status {};
    ASSERT_EQ(::stat(file_.c_str(), &status), 0);
    EXPECT_EQ(std::pair(status.st_uid, status.st_gid), std::pair(uid_t{65534}, gid_t{65534}));
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(json::parse(readFile(file_)), (json{{"version", 2}}));
}

// A file that exists but cannot be read is not an empty store: a change would overwrite what
// the user has. Every change is refused, with an error value and an error line.
TEST_F(UserDefaultsStore, AFileThatCannotBeReadRefusesChangesAndIsLeftAlone) {
    // A directory in the file's place: open succeeds, read fails (EISDIR).
    std::filesystem::create_directories(file_ / "inside");
    auto defaults = kel::UserDefaults::atPath(file_);
    EXPECT_EQ(errorCode(defaults->set("key", 1)), EISDIR);
    EXPECT_EQ(defaults->value<int>("key"), std::nullopt);
    EXPECT_TRUE(std::filesystem::exists(file_ / "inside"));
    ASSERT_FALSE(log_->records().empty());
    EXPECT_EQ(log_->records().back().level, kel::LogLevel::error);
}

// Permission denied (EACCES): the file is readable only by its owner, in a directory anyone
// may write to, and another user changes the store. Root reads everything, so the change is
// made by a child that has given up root.
TEST_F(UserDefaultsStore, AFileWithoutReadPermissionKeepsItsContents) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to act as another user";
    }
    ASSERT_EQ(kel::UserDefaults::atPath(file_)->set("owner", "root"), nullptr);
    const std::string before = readFile(file_);
    std::filesystem::permissions(directory_.path(), std::filesystem::perms(0711));
    std::filesystem::permissions(file_.parent_path(), std::filesystem::perms(0777));
    std::filesystem::permissions(file_, std::filesystem::perms(0600));

    const int status = inChild([&] {
        kel::Log::setSink(std::make_shared<kel::CapturingLogSink>());
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
            return 2;
        }
        return errorCode(kel::UserDefaults::atPath(file_)->set("intruder", true)) == EACCES ? 0 : 1;
    });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(readFile(file_), before);
}

// No descriptor left (EMFILE) when the store is opened: the store reads as empty, but its next
// change re-reads the file and keeps every key.
TEST_F(UserDefaultsStore, ExhaustedDescriptorsNeverLoseKeys) {
#if defined(__SANITIZE_ADDRESS__)
    // UndefinedBehaviorSanitizer probes memory through a pipe; without descriptors its type
    // checks report objects that are fine.
    GTEST_SKIP() << "the sanitizers need free descriptors";
#endif
    ASSERT_EQ(kel::UserDefaults::atPath(file_)->set("kept", 1), nullptr);
    rlimit original{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &original), 0);
    rlimit lowered = original;
    lowered.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    std::vector<int> held;
    for (int descriptor; (descriptor = ::dup(0)) >= 0;) {
        held.push_back(descriptor);
    }
    auto defaults = kel::UserDefaults::atPath(file_);
    kel::Error refused = defaults->set("added", 2);
    for (int descriptor : held) {
        ::close(descriptor);
    }
    setrlimit(RLIMIT_NOFILE, &original);

    EXPECT_EQ(errorCode(refused), EMFILE);
    EXPECT_EQ(defaults->dictionaryRepresentation(), json::object());
    EXPECT_EQ(defaults->set("added", 2), nullptr);
    EXPECT_EQ(json::parse(readFile(file_)), (json{{"kept", 1}, {"added", 2}}));
}

// Two processes writing one store: each write re-reads under the file lock and applies only its
// own change, so neither loses the other's keys. The writers are this test binary run again
// with only the helper test below selected.
TEST_F(UserDefaultsStore, TwoProcessesWritingOneStoreLoseNoKey) {
    std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    std::string filter = "--gtest_filter=UserDefaultsWriterProcess.*";
    std::string fileVariable = "KEL_DEFAULTS_WRITER_FILE=" + file_.string();
    char* argv[] = {self.data(), filter.data(), nullptr};
    char* envp[] = {fileVariable.data(), nullptr};
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t writers[2] = {};
    int spawned[2] = {};
    for (int i = 0; i < 2; ++i) {
        spawned[i] = posix_spawn(&writers[i], self.c_str(), &quiet, nullptr, argv, envp);
    }
    posix_spawn_file_actions_destroy(&quiet);
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(spawned[i], 0);
        const int status = waitFor(writers[i]);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    EXPECT_EQ(json::parse(readFile(file_)).size(), 2u * kWriterKeys);
}

TEST(UserDefaultsWriterProcess, WritesItsKeysWhenRunAsAHelper) {
    const char* file = std::getenv("KEL_DEFAULTS_WRITER_FILE");
    if (file == nullptr) {
        GTEST_SKIP() << "a helper process of TwoProcessesWritingOneStoreLoseNoKey";
    }
    kel::Log::setSink(std::make_shared<kel::CapturingLogSink>());
    const std::string name = std::to_string(::getpid()) + "-";  // distinct per writer
    auto defaults = kel::UserDefaults::atPath(file);
    for (int i = 0; i < kWriterKeys; ++i) {
        ASSERT_EQ(defaults->set(name + std::to_string(i), i), nullptr);
    }
}

TEST(UserDefaultsStandard, LivesInTheUserConfigurationDirectoryNamedAfterTheProgram) {
    kel::test::ScopedEnvironment environment;
    environment.set("XDG_CONFIG_HOME", "/xdg/config").set("HOME", "/home/someone");
    std::string file = std::string(program_invocation_short_name) + ".json";
    EXPECT_EQ(kel::UserDefaults::standardPath(), std::filesystem::path("/xdg/config") / file);
    // A relative XDG_CONFIG_HOME is invalid and ignored.
    environment.set("XDG_CONFIG_HOME", "relative/config");
    EXPECT_EQ(kel::UserDefaults::standardPath(),
              std::filesystem::path("/home/someone/.config") / file);
}

}  // namespace
