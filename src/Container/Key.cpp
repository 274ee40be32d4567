#include "kel/Container/Key.hpp"

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>

namespace kel {
namespace runtime {

const char* internTypeName(const char* mangledName) {
    // One table for the process: every shared object that asks for a type's word reaches this
    // function in the library, so equal names give the same interned pointer. Guarded by its own
    // mutex; each shared object asks once per type.
    static std::mutex mutex;
    static auto* names =
        new std::unordered_set<std::string>();  // never destroyed: words outlive statics
    std::lock_guard<std::mutex> lock(mutex);
    return names->emplace(mangledName).first->c_str();
}

std::string demangle(const char* mangledName) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> readable(
        abi::__cxa_demangle(mangledName, nullptr, nullptr, &status), std::free);
    return status == 0 && readable ? std::string(readable.get()) : std::string(mangledName);
}

}  // namespace runtime

std::string Key::description() const {
    std::string text = runtime::demangle(reinterpret_cast<const char*>(addr));
    if (namespace_) {
        text += " (name: \"" + *namespace_ + "\")";
    }
    return text;
}

}  // namespace kel
