// Log-format rendering: the input is a format and its text arguments, separated by "|". The
// rendered line has no line break that the format does not have (arguments cannot add any), and a
// redacted rendering never shows an argument that only a private conversion names.
#include "FuzzSupport.hpp"

#include "kel/Platform/Log.hpp"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string_view> parts = kel::fuzz::split(kel::fuzz::asText(data, size), "|");
    const std::string_view format = parts.front();
    std::vector<kel::LogArgument> arguments;
    for (std::size_t i = 1; i < parts.size(); ++i) {
        arguments.emplace_back(parts[i]);
    }
    arguments.emplace_back(42);
    arguments.emplace_back(2.5);
    for (bool redact : {true, false}) {
        std::string line = kel::renderLogMessage(format, arguments, redact);
        if (std::count(line.begin(), line.end(), '\n') >
            std::count(format.begin(), format.end(), '\n')) {
            kel::fuzz::fail("an argument added a line break");
        }
    }
    // A format of private conversions only: no argument text may appear.
    std::string privateOnly;
    for (std::size_t i = 1; i < parts.size(); ++i) {
        privateOnly += format.empty() ? "%@ " : "%{private}s ";
    }
    std::string redacted = kel::renderLogMessage(privateOnly, arguments, true);
    for (char c : redacted) {
        if (c != ' ' && std::string_view("<private>").find(c) == std::string_view::npos) {
            kel::fuzz::fail("a private argument was shown");
        }
    }
    return 0;
}
