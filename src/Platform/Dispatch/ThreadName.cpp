#include "ThreadName.hpp"

#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace kel::detail {

namespace {

thread_local char currentThreadName[16] = {};

}  // namespace

void nameThread(const std::string& label) {
    char name[16];
    std::string_view shown = label.empty() ? std::string_view("kel.queue") : label;
    std::size_t length = std::min<std::size_t>(shown.size(), 15);
    std::memcpy(name, shown.data(), length);
    name[length] = '\0';
    if (std::strcmp(name, currentThreadName) != 0) {
        std::memcpy(currentThreadName, name, length + 1);
        ::pthread_setname_np(::pthread_self(), name);
    }
}

}  // namespace kel::detail
