// User-defaults files: the input is the file's contents. Opening, reading every key as several
// types and writing one change must never crash, never give a number outside the asked type's
// range, and never lose the file's contents (an unparsable file is moved aside).
#include "FuzzSupport.hpp"

#include "kel/Platform/Log.hpp"
#include "kel/Platform/UserDefaults.hpp"

#include <stdlib.h>

#include <cstdlib>

#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

const fs::path& scratch() {
    static const fs::path directory = [] {
        // Every run writes and flushes a file: memory-backed /dev/shm keeps that cheap.
        const fs::path base =
            fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
        std::string pattern = (base / "kel-fuzz-defaults-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            kel::fuzz::fail("cannot create a scratch directory");
        }
        std::atexit([] {
            std::error_code ignored;
            fs::remove_all(scratch(), ignored);
        });
        return fs::path(pattern);
    }();
    return directory;
}

template <class T>
void readAs(const kel::UserDefaults& defaults, const std::string& key) {
    (void)defaults.value<T>(key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fs::path file = scratch() / "defaults.json";
    for (const auto& entry : fs::directory_iterator(scratch())) {
        fs::remove_all(entry.path());
    }
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    // Logging keeps every record in the capturing sink: start each run with an empty one.
    kel::Log::setSink(std::make_shared<kel::CapturingLogSink>());

    auto defaults = kel::UserDefaults::atPath(file);
    const nlohmann::json before = defaults->dictionaryRepresentation();
    for (const auto& [key, value] : before.items()) {
        readAs<int>(*defaults, key);
        readAs<unsigned>(*defaults, key);
        readAs<long long>(*defaults, key);
        readAs<unsigned char>(*defaults, key);
        readAs<float>(*defaults, key);
        readAs<double>(*defaults, key);
        readAs<bool>(*defaults, key);
        readAs<std::string>(*defaults, key);
    }
    if (defaults->set("fuzz", 1) != nullptr) {
        kel::fuzz::fail("a change to a readable file was refused");
    }
    nlohmann::json after = defaults->dictionaryRepresentation();
    after.erase("fuzz");
    if (before.contains("fuzz")) {
        after["fuzz"] = before["fuzz"];
    }
    if (after != before) {
        kel::fuzz::fail("a change lost or altered other keys");
    }
    return 0;
}
