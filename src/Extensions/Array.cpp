#include "kel/Extensions/Array.hpp"

namespace kel::runtime {

std::mt19937_64& threadRandomEngine() {
    thread_local std::mt19937_64 engine = [] {
        std::random_device device;
        std::seed_seq seed{device(), device(), device(), device()};
        return std::mt19937_64(seed);
    }();
    return engine;
}

}  // namespace kel::runtime
