#include "kel/Extensions/DebugCacheRegistry.hpp"

#include "kel/Platform/FatalError.hpp"
#include "kel/Platform/Log.hpp"

#include "../Platform/ASCII.hpp"

#include <optional>
#include <system_error>

namespace kel {

namespace fs = std::filesystem;

namespace {

bool isUnreservedInPath(unsigned char byte) {
    const auto c = static_cast<char>(byte);
    return detail::isAsciiLetter(c) || detail::isAsciiDigit(c) || c == '-' || c == '.' ||
           c == '_' || c == '~' || c == '/';
}

// Removes the item at the URL, a directory with its contents. Returns the failure's text.
std::optional<std::string> removeItem(const std::string& url) {
    std::optional<fs::path> path = DebugCacheRegistry::filePath(url);
    if (!path) {
        return "unsupported URL: not a local file URL";
    }
    std::error_code error;
    fs::file_status status = fs::symlink_status(*path, error);
    if (status.type() == fs::file_type::not_found) {
        return std::make_error_code(std::errc::no_such_file_or_directory).message();
    }
    if (error) {
        return error.message();
    }
    fs::remove_all(*path, error);
    if (error) {
        return error.message();
    }
    return std::nullopt;
}

}  // namespace

std::string DebugCacheRegistry::fileURL(const fs::path& path) {
    std::error_code error;
    fs::path absolute = fs::absolute(path, error);
    const std::string& text = error ? path.native() : absolute.native();
    std::string url = "file://";
    detail::appendPercentEncoded(url, text, isUnreservedInPath);
    return url;
}

std::optional<fs::path> DebugCacheRegistry::filePath(std::string_view url) {
    if (!detail::startsWithIgnoringCase(url, "file://")) {
        return std::nullopt;
    }
    std::string_view rest = url.substr(7);
    if (detail::startsWithIgnoringCase(rest, "localhost/")) {
        rest.remove_prefix(9);
    }
    if (rest.empty() || rest.front() != '/') {
        return std::nullopt;
    }
    rest = rest.substr(0, rest.find_first_of("?#"));
    // A malformed escape stands for itself, as a "%" in a file name would.
    std::optional<std::string> decoded = detail::percentDecode(rest, detail::MalformedEscape::keep);
    // A NUL byte, raw or "%00", would end the path early in every system call: "dir\0/cache.bin"
    // would name "dir" itself; and no file name holds one.
    if (!decoded || decoded->find('\0') != std::string::npos) {
        return std::nullopt;
    }
    return fs::path(std::move(*decoded));
}

void DebugCacheRegistry::registerFile(const fs::path& path) {
    cacheFileURLs_.push_back(fileURL(path));
}

void DebugCacheRegistry::registerFileURL(std::string_view url) {
    cacheFileURLs_.emplace_back(url);
}

void DebugCacheRegistry::registerContentsOfDirectory(const fs::path& directory) {
    std::error_code error;
    fs::directory_iterator entries(directory, error);
    std::vector<std::string> found;
    for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
        found.push_back(fileURL(entries->path()));
    }
    if (error) {
        return;
    }
    cacheFileURLs_.insert(cacheFileURLs_.end(), std::make_move_iterator(found.begin()),
                          std::make_move_iterator(found.end()));
}

void DebugCacheRegistry::registerContentsOfDirectoryURL(std::string_view url) {
    if (std::optional<fs::path> directory = filePath(url)) {
        registerContentsOfDirectory(*directory);
    }
}

void DebugCacheRegistry::registerUserDefaultsKey(std::string key,
                                                 std::shared_ptr<UserDefaults> defaults) {
    KEL_PRECONDITION(defaults != nullptr, "a user-defaults key needs a store");
    cacheUserDefaultsEntries_.push_back({std::move(key), std::move(defaults)});
}

void DebugCacheRegistry::clear() {
    Log::write(LogLevel::default_, "clearing cache files");
    for (const std::string& url : cacheFileURLs_) {
        Log::write(LogLevel::default_, "removing cache file: %@", url);
        if (std::optional<std::string> failure = removeItem(url)) {
            Log::write(LogLevel::error, "failed to remove cache file with error: %{public}@",
                       *failure);
        }
    }
    Log::write(LogLevel::default_, "clearing cache user defaults entries");
    for (const UserDefaultsEntry& entry : cacheUserDefaultsEntries_) {
        Log::write(LogLevel::default_, "removing cache user defaults key: %@", entry.key);
        entry.defaults->removeObject(entry.key);
    }
}

}  // namespace kel
