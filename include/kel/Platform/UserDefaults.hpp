// kel::UserDefaults — a small persistent key-value store for an application's preferences.
//
// Values are JSON values (nlohmann::json) stored under text keys. Each store is backed by one
// JSON file holding an object. The store never loses what the file holds:
//   - Only a missing file is an empty store. When the file exists but cannot be read (no
//     permission, no descriptor left, an I/O error, a directory in its place), every change is
//     refused: set and removeObject return an error, log an error line, change nothing and
//     leave the file as it is.
//   - A file that is not a JSON object is moved aside, never overwritten: the next change
//     renames it to "<file>.corrupt" (or "<file>.corrupt.1", ... when taken), logs an error
//     naming the new file, and starts a fresh store.
//   - Every change is written through at once, safe against other processes and crashes: it
//     takes an exclusive flock(2) on "<directory>/.<file name>.lock" (kept for later writers),
//     re-reads the file, applies only this change to what it read (so keys that another
//     process wrote meanwhile are kept), writes the result to a temporary file beside it
//     (close-on-exec, the replaced file's permission bits), flushes it, renames it over the
//     file, flushes the directory and releases the lock. A crash at any moment leaves the old
//     or the new file, never a torn one; temporary files that a crashed writer left behind
//     are removed by the next writer. A failed step, the directory flush included, is
//     reported as an error value and an error log line.
// Reads answer from memory: the contents read when the store was opened, refreshed by every
// change this process makes. A new file is created with mode 0600.
//
// UserDefaults::standard() is the application's store, "<program name>.json" in the user's
// configuration directory ($XDG_CONFIG_HOME, or ~/.config). UserDefaults::atPath(file) opens
// the store of any file. Within a process there is one store per file: asking twice for the
// same file while the first store is alive gives the same object.
//
// Thread rules: every member may be called from any thread; one mutex per store serialises
// reads, changes and the file write that follows each change; the file lock serialises the
// writers of all processes.
// Ownership: stores are shared-owned (std::shared_ptr); the file outlives them.
#pragma once

#include "kel/Export.hpp"
#include "kel/Platform/Error.hpp"
#include "kel/Platform/detail/JSONNumber.hpp"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <type_traits>

namespace kel {

class KEL_EXPORT UserDefaults {
    struct Passkey {};

  public:
    // The application's store, created on first use.
    static std::shared_ptr<UserDefaults> standard();
    // Where standard() keeps its file.
    static std::filesystem::path standardPath();
    // The store backed by `file` (created on the first change if it does not exist).
    static std::shared_ptr<UserDefaults> atPath(const std::filesystem::path& file);

    UserDefaults(std::filesystem::path file, Passkey);
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    // The backing file, absolute.
    const std::filesystem::path& path() const noexcept { return path_; }

    // The value stored under `key`, if any.
    std::optional<nlohmann::json> object(std::string_view key) const;

    // The value stored under `key` converted to T; nothing when the key is absent or its value
    // does not convert (a text asked for as a number, a number asked for as a Boolean).
    template <class T>
    std::optional<T> value(std::string_view key) const {
        std::optional<nlohmann::json> stored = object(key);
        if (!stored) {
            return std::nullopt;
        }
        // The JSON library converts numbers with an unchecked cast: a number that T cannot
        // hold would be undefined behaviour.
        if (!detail::jsonNumberFits<T>(*stored)) {
            return std::nullopt;
        }
        try {
            return stored->template get<T>();
        } catch (const nlohmann::json::exception&) {
            return std::nullopt;
        }
    }

    // Stores `value` under `key` and writes the file (nothing is written when the file already
    // holds an equal value there). Returns a null Error on success; on failure the error (a
    // DomainError of the POSIX domain with the errno as its code), and the store and its file
    // are unchanged.
    Error set(std::string_view key, nlohmann::json value);

    // Removes the key and writes the file (nothing is written when the key is absent). Returns
    // as set does.
    Error removeObject(std::string_view key);

    // Every key and value, as one JSON object.
    nlohmann::json dictionaryRepresentation() const;

    // The domain of the errors that set and removeObject return.
    static constexpr const char* errorDomain = "NSPOSIXErrorDomain";

  private:
    // Re-reads the file under the file lock, stores `value` under `key` in what it read (or
    // removes the key when `value` is null) and writes the result. mutex_ held.
    Error updateLocked(std::string_view key, const nlohmann::json* value);

    const std::filesystem::path path_;
    mutable std::mutex mutex_;  // guards values_ and this process's writes of the file
    nlohmann::json values_;     // guarded by mutex_; always an object
};

}  // namespace kel
