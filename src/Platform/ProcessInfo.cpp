#include "kel/Platform/ProcessInfo.hpp"

#include <fstream>
#include <iterator>

extern char** environ;

namespace kel {

ProcessInfo ProcessInfo::processInfo() {
    std::vector<std::string> arguments;
    std::ifstream cmdline("/proc/self/cmdline", std::ios::binary);
    std::string all((std::istreambuf_iterator<char>(cmdline)), std::istreambuf_iterator<char>());
    // NUL-terminated arguments, one after the other.
    for (std::size_t start = 0; start < all.size();) {
        auto end = all.find('\0', start);
        if (end == std::string::npos) {
            end = all.size();
        }
        arguments.emplace_back(all, start, end - start);
        start = end + 1;
    }
    std::map<std::string, std::string> environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        std::string_view text(*entry);
        auto equals = text.find('=');
        if (equals != std::string_view::npos) {
            environment.emplace(std::string(text.substr(0, equals)),
                                std::string(text.substr(equals + 1)));
        }
    }
    return ProcessInfo(std::move(arguments), std::move(environment));
}

}  // namespace kel
