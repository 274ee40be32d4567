// kel::UserDefaults — a small persistent key-value store for an application's preferences.
//
// Values are JSON values (nlohmann::json) stored under text keys. Each store is backed by one
// JSON file holding an object; every change is written through at once, atomically: the new
// contents go to a temporary file in the same directory, which is flushed to disk and then
// renamed over the old file, so a crash at any moment leaves either the old or the new file,
// never a torn one. A file that cannot be read or parsed opens as an empty store (and is
// replaced on the next change); a failed write keeps the change in memory and logs an error.
//
// UserDefaults::standard() is the application's store, "<program name>.json" in the user's
// configuration directory ($XDG_CONFIG_HOME, or ~/.config). UserDefaults::atPath(file) opens
// the store of any file. Within a process there is one store per file: asking twice for the
// same file while the first store is alive gives the same object, so changes are never lost to
// a second in-memory copy. Another process writing the same file is not observed.
//
// Thread rules: every member may be called from any thread; one mutex per store serialises
// reads, changes and the file write that follows each change.
// Ownership: stores are shared-owned (std::shared_ptr); the file outlives them.
#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

namespace kel {

class UserDefaults {
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
        try {
            return stored->template get<T>();
        } catch (const nlohmann::json::exception&) {
            return std::nullopt;
        }
    }

    // Stores `value` under `key` and writes the file (nothing is written when the key already
    // holds an equal value).
    void set(std::string_view key, nlohmann::json value);

    // Removes the key and writes the file (nothing is written when the key is absent).
    void removeObject(std::string_view key);

    // Every key and value, as one JSON object.
    nlohmann::json dictionaryRepresentation() const;

  private:
    void writeLocked() const;

    const std::filesystem::path path_;
    mutable std::mutex mutex_;  // guards values_ and the backing file's contents
    nlohmann::json values_;     // guarded by mutex_; always an object
};

}  // namespace kel
