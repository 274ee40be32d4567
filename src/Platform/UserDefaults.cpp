#include "kel/Platform/UserDefaults.hpp"

#include "kel/Platform/DomainError.hpp"
#include "kel/Platform/Log.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <variant>

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

// What reading the backing file found.
struct StoreContents {
    enum class Kind { missing, object, unparsable, unreadable } kind = Kind::missing;
    nlohmann::json values = nlohmann::json::object();  // the object (empty unless Kind::object)
    int error = 0;                                     // errno of an unreadable file
};

StoreContents readStore(const fs::path& file) {
    StoreContents contents;
    int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        // Only a file that is not there is an empty store; any other failure (EACCES, EMFILE,
        // EIO, ...) says nothing about what the file holds.
        if (errno == ENOENT) {
            return contents;
        }
        contents.kind = StoreContents::Kind::unreadable;
        contents.error = errno;
        return contents;
    }
    std::string text;
    char buffer[16384];
    for (;;) {
        ssize_t got = ::read(descriptor, buffer, sizeof buffer);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            contents.kind = StoreContents::Kind::unreadable;
            contents.error = errno;
            ::close(descriptor);
            return contents;
        }
        if (got == 0) {
            break;
        }
        text.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(descriptor);
    nlohmann::json parsed = nlohmann::json::parse(text, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object()) {
        contents.kind = StoreContents::Kind::unparsable;
        return contents;
    }
    contents.kind = StoreContents::Kind::object;
    contents.values = std::move(parsed);
    return contents;
}

Error posixError(int code, const std::string& what) {
    return makeError(
        DomainError(UserDefaults::errorDomain, code,
                    {{DomainError::localizedDescriptionKey, what + ": " + systemErrorText(code)}}));
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

// The prefix of the temporary files of `file`: ".<name>.tmp-" followed by mkostemp's six
// characters.
std::string temporaryPrefix(const fs::path& file) {
    return "." + file.filename().string() + ".tmp-";
}

// Removes temporary files that a writer left behind when it crashed between creating and
// renaming them. Called with the file lock held, when no other writer can be mid-write.
void removeStaleTemporaries(const fs::path& file) {
    const std::string prefix = temporaryPrefix(file);
    std::error_code error;
    for (fs::directory_iterator entries(file.parent_path(), error), end; !error && entries != end;
         entries.increment(error)) {
        const std::string name = entries->path().filename().string();
        if (name.size() == prefix.size() + 6 && name.compare(0, prefix.size(), prefix) == 0) {
            ::unlink(entries->path().c_str());
        }
    }
}

// Renames an unparsable file to "<file>.corrupt", "<file>.corrupt.1", ... without ever
// replacing an existing file. Returns the new name, or the errno of the failure.
std::variant<fs::path, int> moveAside(const fs::path& file) {
    for (int attempt = 0; attempt < 1000; ++attempt) {
        fs::path aside = file;
        aside += attempt == 0 ? ".corrupt" : ".corrupt." + std::to_string(attempt);
        if (::renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) {
            return aside;
        }
        if (errno == EINVAL || errno == ENOSYS) {
            // A file system without RENAME_NOREPLACE: link then unlink never replaces either.
            if (::link(file.c_str(), aside.c_str()) == 0) {
                ::unlink(file.c_str());
                return aside;
            }
        }
        if (errno != EEXIST) {
            return errno;
        }
    }
    return EEXIST;
}

// Holds an exclusive flock(2) on the store's lock file for its lifetime.
class FileLock {
  public:
    explicit FileLock(const fs::path& file) {
        fs::path lockFile = file.parent_path() / ("." + file.filename().string() + ".lock");
        descriptor_ = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (descriptor_ < 0) {
            error_ = errno;
            return;
        }
        while (::flock(descriptor_, LOCK_EX) != 0) {
            if (errno != EINTR) {
                error_ = errno;
                return;
            }
        }
    }
    ~FileLock() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);  // releases the lock
        }
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    int error() const { return error_; }

  private:
    int descriptor_ = -1;
    int error_ = 0;
};

// The mode and owner a rewritten file keeps from the file it replaces.
struct Ownership {
    mode_t mode = 0600;
    std::optional<std::pair<uid_t, gid_t>> owner;  // none: the writer's own
};

// Writes `contents` to a temporary file beside `file` (close-on-exec, with the given mode and,
// where the writer may give it, owner), flushes it to disk and renames it over `file`; then
// flushes the directory so that the rename itself survives a power loss. Returns the failed
// step and its errno, or nothing.
std::optional<std::pair<const char*, int>> writeAtomically(const fs::path& file,
                                                           std::string_view contents,
                                                           const Ownership& ownership) {
    std::string temporary = (file.parent_path() / (temporaryPrefix(file) + "XXXXXX")).string();
    int descriptor = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (descriptor < 0) {
        return std::pair{"cannot create a temporary file", errno};
    }
    if (ownership.owner) {
        // Only root (or an owner changing the group to one of its own) may do this; for
        // anyone else it fails, and the new file is the writer's, which a rename cannot avoid.
        (void)::fchown(descriptor, ownership.owner->first, ownership.owner->second);
    }
    std::optional<std::pair<const char*, int>> failure;
    if (::fchmod(descriptor, ownership.mode) != 0) {
        failure = std::pair{"cannot set the mode of the temporary file", errno};
    } else if (!writeAll(descriptor, contents)) {
        failure = std::pair{"cannot write the temporary file", errno};
    } else if (::fsync(descriptor) != 0) {
        failure = std::pair{"cannot flush the temporary file", errno};
    }
    if (::close(descriptor) != 0 && !failure) {
        failure = std::pair{"cannot close the temporary file", errno};
    }
    if (!failure && ::rename(temporary.c_str(), file.c_str()) != 0) {
        failure = std::pair{"cannot replace the file", errno};
    }
    if (failure) {
        ::unlink(temporary.c_str());
        return failure;
    }
    int directory = ::open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
        return std::pair{"cannot open the directory to flush it", errno};
    }
    if (::fsync(directory) != 0) {
        failure = std::pair{"cannot flush the directory", errno};
    }
    ::close(directory);
    return failure;
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

UserDefaults::UserDefaults(fs::path file, Passkey) : path_(std::move(file)) {
    StoreContents contents = readStore(path_);
    switch (contents.kind) {
        case StoreContents::Kind::missing:
        case StoreContents::Kind::object:
            break;
        case StoreContents::Kind::unreadable:
            Log::write(LogLevel::error,
                       "failed to read user defaults %@: %{public}@; changes are refused",
                       path_.string(), systemErrorText(contents.error));
            break;
        case StoreContents::Kind::unparsable:
            Log::write(LogLevel::error,
                       "failed to read user defaults %@: %{public}@; the next change moves it "
                       "aside",
                       path_.string(), "not a JSON object");
            break;
    }
    values_ = std::move(contents.values);
}

std::optional<nlohmann::json> UserDefaults::object(std::string_view key) const {
    std::lock_guard lock(mutex_);
    auto found = values_.find(key);
    if (found == values_.end()) {
        return std::nullopt;
    }
    return *found;
}

Error UserDefaults::set(std::string_view key, nlohmann::json value) {
    std::lock_guard lock(mutex_);
    return updateLocked(key, &value);
}

Error UserDefaults::removeObject(std::string_view key) {
    std::lock_guard lock(mutex_);
    return updateLocked(key, nullptr);
}

nlohmann::json UserDefaults::dictionaryRepresentation() const {
    std::lock_guard lock(mutex_);
    return values_;
}

Error UserDefaults::updateLocked(std::string_view key, const nlohmann::json* value) {
    auto refuse = [this](int code, const std::string& what) {
        Log::write(LogLevel::error, "failed to write user defaults %@: %{public}@", path_.string(),
                   what + ": " + systemErrorText(code));
        return posixError(code, what);
    };
    std::error_code directoryError;
    fs::create_directories(path_.parent_path(), directoryError);
    if (directoryError) {
        return refuse(directoryError.value(), "cannot create the directory");
    }
    FileLock fileLock(path_);
    if (fileLock.error() != 0) {
        return refuse(fileLock.error(), "cannot lock the file");
    }
    removeStaleTemporaries(path_);

    StoreContents contents = readStore(path_);
    Ownership ownership;
    switch (contents.kind) {
        case StoreContents::Kind::missing:
            break;
        case StoreContents::Kind::object: {
            struct stat status {};
            if (::stat(path_.c_str(), &status) == 0) {
                ownership.mode = status.st_mode & 07777;
                if (status.st_uid != ::geteuid() || status.st_gid != ::getegid()) {
                    ownership.owner = std::pair{status.st_uid, status.st_gid};
                }
            }
            break;
        }
        case StoreContents::Kind::unreadable:
            return refuse(contents.error, "cannot read the file, left as it is");
        case StoreContents::Kind::unparsable: {
            std::variant<fs::path, int> aside = moveAside(path_);
            if (const int* code = std::get_if<int>(&aside)) {
                return refuse(*code, "cannot move the unreadable file aside");
            }
            Log::write(LogLevel::error,
                       "user defaults %@ held no JSON object; kept as %@, starting afresh",
                       path_.string(), std::get<fs::path>(aside).string());
            break;
        }
    }

    nlohmann::json& fresh = contents.values;
    auto found = fresh.find(key);
    bool changed = true;
    if (value == nullptr) {
        changed = found != fresh.end();
        if (changed) {
            fresh.erase(found);
        }
    } else if (found != fresh.end()) {
        changed = *found != *value;
        *found = *value;
    } else {
        fresh.emplace(std::string(key), *value);
    }
    // A moved-aside file is replaced even without a change, so that the store has a file.
    if (changed || contents.kind == StoreContents::Kind::unparsable) {
        // Text that is not valid UTF-8 is written with replacement characters rather than
        // making the whole store unwritable.
        std::string text =
            fresh.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
        if (auto failure = writeAtomically(path_, text, ownership)) {
            return refuse(failure->second, failure->first);
        }
    }
    values_ = std::move(fresh);
    return nullptr;
}

}  // namespace kel
