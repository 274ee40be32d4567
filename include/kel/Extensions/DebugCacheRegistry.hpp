// kel::DebugCacheRegistry — a list of cache files and user-defaults keys that a debug menu can
// wipe with one clear().
//
// Components register what they cache: single files, the entries of a cache directory, and
// keys of a UserDefaults store. clear() removes them all, in registration order, logging each
// step; a failed removal is logged and the next one is tried. Registrations are kept, so a
// later clear() removes the same files and keys again (files already gone then log a failure).
//
// Files are held as file URLs ("file:///var/cache/app/x.json"), the form they are logged in.
// They may be registered by path (made absolute against the current directory at registration)
// or by the text of a file URL ("file:///..." or "file://localhost/...", percent-encoded). A URL
// of another scheme is kept as given and fails to be removed at clear(), like any other item
// that cannot be removed.
//
// Thread rules: none taken. Registration and clear() belong to one thread, the main thread.
// Ownership: shared-owned (std::shared_ptr); holds the registered UserDefaults stores strongly.
#pragma once

#include "kel/Export.hpp"
#include "kel/Platform/UserDefaults.hpp"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kel {

class KEL_EXPORT DebugCacheRegistry {
  public:
    DebugCacheRegistry() = default;
    DebugCacheRegistry(const DebugCacheRegistry&) = delete;
    DebugCacheRegistry& operator=(const DebugCacheRegistry&) = delete;

    // Registers one file (or directory, removed with its contents) by path.
    void registerFile(const std::filesystem::path& path);
    // Registers one file by the text of its URL.
    void registerFileURL(std::string_view url);

    // Lists the directory now and registers each entry, hidden ones included, in listing order;
    // subdirectories are registered as entries, not descended into. A directory that cannot be
    // listed registers nothing.
    void registerContentsOfDirectory(const std::filesystem::path& directory);
    // The same for a directory given by the text of its file URL.
    void registerContentsOfDirectoryURL(std::string_view url);

    // Registers a key of a user-defaults store; clear() removes the key's value from that store.
    void registerUserDefaultsKey(std::string key, std::shared_ptr<UserDefaults> defaults);

    // Removes every registered file, then every registered key, logging as it goes.
    void clear();

    // The file URL of a path ("/tmp/a b" -> "file:///tmp/a%20b"), made absolute first.
    static std::string fileURL(const std::filesystem::path& path);
    // The path of a file URL, or nothing when the text is not a local file URL or holds a NUL
    // byte, raw or percent-encoded (no file name holds one, and a system call would stop at it:
    // "file:///c/dir\0/cache.bin" would name the directory "/c/dir").
    static std::optional<std::filesystem::path> filePath(std::string_view url);

  private:
    struct UserDefaultsEntry {
        std::string key;
        std::shared_ptr<UserDefaults> defaults;
    };

    std::vector<std::string> cacheFileURLs_;                   // owned by the registering thread
    std::vector<UserDefaultsEntry> cacheUserDefaultsEntries_;  // owned by the registering thread
};

}  // namespace kel
