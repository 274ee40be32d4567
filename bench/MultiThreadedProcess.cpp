// Every benchmark in this binary runs in a multi-threaded process, as the library does in an
// application (the dispatch runtime has threads of its own). glibc and libstdc++ skip atomic
// instructions and locking while a process has only ever had one thread, which would flatter
// whichever side of a comparison happens to run first; one short-lived thread, started before
// main, turns that off for the whole run.
#include <thread>

namespace {

const bool multiThreaded = [] {
    std::thread([] {}).join();
    return true;
}();

}  // namespace
