#include "kel/Networking/TestDataLoader.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "kel/Platform/FatalError.hpp"

namespace kel::runtime {

namespace {

std::optional<std::string> homeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
        return std::string(home);
    }
    passwd entry{};
    passwd* found = nullptr;
    char buffer[4096];
    if (::getpwuid_r(::getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr) {
        return std::string(found->pw_dir);
    }
    return std::nullopt;
}

}  // namespace

std::filesystem::path documentsDirectory() {
    auto home = homeDirectory();
    if (const char* xdg = std::getenv("XDG_DOCUMENTS_DIR"); xdg != nullptr && *xdg != '\0') {
        std::string path(xdg);
        for (std::string_view prefix : {"~", "$HOME"}) {
            if (path.starts_with(prefix) &&
                (path.size() == prefix.size() || path[prefix.size()] == '/') && home) {
                path = *home + path.substr(prefix.size());
                break;
            }
        }
        return path;
    }
    KEL_PRECONDITION(home.has_value(),
                     "no documents directory: neither XDG_DOCUMENTS_DIR nor a home");
    return std::filesystem::path(*home) / "Documents";
}

}  // namespace kel::runtime
