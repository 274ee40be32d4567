#include "kel/Platform/UserDefaults.hpp"

#include "kel/Platform/Log.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <system_error>

namespace kel {

namespace fs = std::filesystem;

namespace {

std::string systemErrorText(int code) {
    return std::system_category().message(code);
}

fs::path homeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') {
        return home;
    }
    struct passwd entry {};
    struct passwd* found = nullptr;
    char buffer[4096];
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr) {
        return found->pw_dir;
    }
    return fs::temp_directory_path();
}

// Absolute and normalised, so that two spellings of one file find the same store.
fs::path storeKey(const fs::path& file) {
    std::error_code error;
    fs::path absolute = fs::absolute(file, error);
    if (error) {
        absolute = file;
    }
    fs::path canonical = fs::weakly_canonical(absolute, error);
    return error ? absolute.lexically_normal() : canonical;
}

nlohmann::json readStore(const fs::path& file) {
    std::error_code missing;
    if (!fs::exists(file, missing)) {
        return nlohmann::json::object();
    }
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        Log::write(LogLevel::error, "failed to read user defaults %@: %{public}@", file.string(),
                   "cannot open the file");
        return nlohmann::json::object();
    }
    std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    nlohmann::json parsed = nlohmann::json::parse(text, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object()) {
        Log::write(LogLevel::error, "failed to read user defaults %@: %{public}@", file.string(),
                   "not a JSON object");
        return nlohmann::json::object();
    }
    return parsed;
}

bool writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

// Writes `contents` to a temporary file beside `file`, flushes it to disk and renames it over
// `file`; then flushes the directory so that the rename itself survives a power loss. Returns
// the errno of the failed step, or 0.
int writeAtomically(const fs::path& file, std::string_view contents) {
    std::error_code directoryError;
    fs::create_directories(file.parent_path(), directoryError);
    if (directoryError) {
        return directoryError.value();
    }
    std::string temporary =
        (file.parent_path() / ("." + file.filename().string() + ".XXXXXX")).string();
    int descriptor = ::mkstemp(temporary.data());
    if (descriptor < 0) {
        return errno;
    }
    int failure = 0;
    if (!writeAll(descriptor, contents) || ::fsync(descriptor) != 0) {
        failure = errno;
    }
    if (::close(descriptor) != 0 && failure == 0) {
        failure = errno;
    }
    if (failure == 0 && ::rename(temporary.c_str(), file.c_str()) != 0) {
        failure = errno;
    }
    if (failure != 0) {
        ::unlink(temporary.c_str());
        return failure;
    }
    int directory = ::open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory >= 0) {
        ::fsync(directory);
        ::close(directory);
    }
    return 0;
}

}  // namespace

fs::path UserDefaults::standardPath() {
    fs::path configuration;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg != nullptr && xdg[0] == '/') {
        configuration = xdg;
    } else {
        configuration = homeDirectory() / ".config";
    }
    std::string program = program_invocation_short_name;
    if (program.empty()) {
        program = "application";
    }
    return configuration / (program + ".json");
}

std::shared_ptr<UserDefaults> UserDefaults::standard() {
    static const std::shared_ptr<UserDefaults> store = atPath(standardPath());
    return store;
}

std::shared_ptr<UserDefaults> UserDefaults::atPath(const fs::path& file) {
    static std::mutex registryMutex;                                  // guards registry
    static std::map<fs::path, std::weak_ptr<UserDefaults>> registry;  // guarded by registryMutex
    fs::path key = storeKey(file);
    std::lock_guard lock(registryMutex);
    std::erase_if(registry, [](const auto& entry) { return entry.second.expired(); });
    if (auto existing = registry[key].lock()) {
        return existing;
    }
    auto store = std::make_shared<UserDefaults>(key, Passkey{});
    registry[key] = store;
    return store;
}

UserDefaults::UserDefaults(fs::path file, Passkey)
    : path_(std::move(file)), values_(readStore(path_)) {}

std::optional<nlohmann::json> UserDefaults::object(std::string_view key) const {
    std::lock_guard lock(mutex_);
    auto found = values_.find(key);
    if (found == values_.end()) {
        return std::nullopt;
    }
    return *found;
}

void UserDefaults::set(std::string_view key, nlohmann::json value) {
    std::lock_guard lock(mutex_);
    auto found = values_.find(key);
    if (found != values_.end()) {
        if (*found == value) {
            return;
        }
        *found = std::move(value);
    } else {
        values_.emplace(std::string(key), std::move(value));
    }
    writeLocked();
}

void UserDefaults::removeObject(std::string_view key) {
    std::lock_guard lock(mutex_);
    auto found = values_.find(key);
    if (found == values_.end()) {
        return;
    }
    values_.erase(found);
    writeLocked();
}

nlohmann::json UserDefaults::dictionaryRepresentation() const {
    std::lock_guard lock(mutex_);
    return values_;
}

void UserDefaults::writeLocked() const {
    // Text that is not valid UTF-8 is written with replacement characters rather than making
    // the whole store unwritable.
    int failure = writeAtomically(
        path_, values_.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
    if (failure != 0) {
        Log::write(LogLevel::error, "failed to write user defaults %@: %{public}@", path_.string(),
                   systemErrorText(failure));
    }
}

}  // namespace kel
