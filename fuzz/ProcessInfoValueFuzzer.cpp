// Parses arbitrary text as every typed process value, and as launch arguments and environment
// values; a value that parses must print back to a text that parses to the same value.
#include <kel/Platform/ProcessInfo.hpp>

#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    if (auto integer = kel::ProcessInfoValue<std::int64_t>::from(text)) {
        if (kel::ProcessInfoValue<std::int64_t>::from(std::to_string(*integer)) != integer) {
            std::abort();
        }
    }
    if (auto number = kel::ProcessInfoValue<double>::from(text); number && !std::isnan(*number)) {
        char printed[64];
        auto end = std::to_chars(printed, printed + sizeof printed, *number).ptr;
        if (kel::ProcessInfoValue<double>::from(std::string_view(printed, end - printed)) !=
            number) {
            std::abort();
        }
    }
    (void)kel::ProcessInfoValue<float>::from(text);
    (void)kel::ProcessInfoValue<bool>::from(text);
    kel::ProcessInfo info({"app", "-key", text, "-key", text, "-" + text}, {{"-key", text}});
    (void)info.launchArgument<double>("key");
    (void)info.launchArguments<std::int64_t>("key");
    (void)info.launchArgument<std::string>(text);
    (void)info.environmentVariable<bool>("key");
    return 0;
}
