// kel::asyncMain — runs a block on the main thread: at once when called there, otherwise
// submitted asynchronously to DispatchQueue::main() (it then runs when the main thread runs
// RunLoop).
//
// Thread rules: callable from any thread. The block is moved, never copied.
#pragma once

#include <type_traits>
#include <utility>

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/RunLoop.hpp"
#include "kel/Platform/Task.hpp"

namespace kel {

template <class Block>
requires std::is_invocable_v < std::decay_t<Block>
& > void asyncMain(Block&& block) {
    if (isMainThread()) {
        block();
    } else {
        DispatchQueue::main().async(Task(std::forward<Block>(block)));
    }
}

}  // namespace kel
