// kel::Pool — where the container keeps the instances of one object graph and its singletons,
// and the graph pass that every resolution runs in.
//
// A graph pass nests: the outermost one (depth 1) ends by draining. Draining runs the drain
// blocks (configuration blocks, which are put at the front, so the outermost instance is
// configured first; linking blocks, which are put at the back), then hands one copy of the pool
// to the copy blocks of containers that asked to keep the current graph, and repeats while
// blocks added more blocks. Then the graph is forgotten, unless this pool is itself such a copy.
//
// Thread rules: main-thread work; no lock (like the whole container).
// Ownership: shared by every container derived from one root; copies share the singleton pool.
#pragma once

#include "kel/Container/Key.hpp"
#include "kel/Container/detail/AnyInstance.hpp"
#include "kel/Container/detail/GraphStore.hpp"
#include "kel/Export.hpp"
#include "kel/Platform/FatalError.hpp"
#include "kel/Platform/InlineFunction.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kel {

enum class PoolScope { graph, singleton };
enum class DrainAction { config, linking };

class Pool;

class KEL_EXPORT PoolAccessible {
  public:
    using DrainBlock = InlineFunction<void(), 176>;

    virtual ~PoolAccessible() = default;
    // The instance stored for `key` in the graph or in the singletons; null if none.
    virtual const detail::AnyInstance* get(const Key& key, PoolScope scope) const = 0;
    virtual void set(const Key& key, PoolScope scope, detail::AnyInstance instance) = 0;
    // `config` puts the block at the front of the drain list, `linking` at the back.
    virtual void addDrainBlock(DrainAction action, DrainBlock block) = 0;
};

class KEL_EXPORT Pool final : public PoolAccessible {
  public:
    using CopyBlock = std::function<void(const std::shared_ptr<Pool>&)>;

    // An empty pool with a new singleton pool; it forgets its graph when drained.
    Pool();

    // A pool holding this pool's graph and sharing its singletons: depth 0, no blocks, and it
    // never forgets its graph.
    std::shared_ptr<Pool> copy() const;

    std::size_t depth() const noexcept { return depth_; }
    bool isGraphDrainingEnabled() const noexcept { return isGraphDrainingEnabled_; }
    std::size_t graphCount() const noexcept { return graph_.size(); }

    const detail::AnyInstance* get(const Key& key, PoolScope scope) const override;
    KEL_NO_EXPORT void set(const Key& key, PoolScope scope, detail::AnyInstance instance) override;
    void addDrainBlock(DrainAction action, DrainBlock block) override;

    void addDrainCopyPoolGraphBlock(CopyBlock block) {
        copyBlocks_.push_back(std::move(block));
        pending_ = true;
    }
    bool hasDrainCopyPoolGraphBlocks() const noexcept { return !copyBlocks_.empty(); }

    // Runs `body` as a graph pass and answers its result. If the body throws, the pass is left
    // (an outermost pass drops its pending blocks and its graph) and the exception propagates.
    template <class Body>
    auto graphPass(Body&& body) {
        enterPass();
        struct Leave {
            Pool& pool;
            bool normally = false;
            ~Leave() {
                if (!normally) {
                    pool.abandonPass();
                }
            }
        } leave{*this};
        auto result = std::forward<Body>(body)();
        exitPass();
        leave.normally = true;
        return result;
    }

    // Building a key while it is already being built is a factory cycle: stops the process with
    // the chain of keys. Every beginBuilding is matched by endBuilding.
    void beginBuilding(const Key& key);
    void endBuilding() noexcept { building_.pop_back(); }

    // The two halves of a graph pass, for callers that cannot use graphPass. Entering past the
    // largest depth and exiting at depth 0 stop the process; exiting at depth 1 drains when
    // anything is pending (a block, or a graph this pool forgets). Inline: every resolution
    // runs them, and with nothing pending they are a compare and a branch each.
    void enterPass() {
        KEL_PRECONDITION(depth_ < std::numeric_limits<std::size_t>::max(), "pool depth overflow");
        ++depth_;
    }
    void exitPass() {
        KEL_PRECONDITION(depth_ >= 1, "pool depth would go below zero");
        if (depth_ == 1 && pending_) {
            drain();
        }
        --depth_;
    }

    // The number of this pool's singleton pool, shared by its copies and unique in the process
    // (never 0), and the singleton slot of `key` in it. Singleton slots are never erased and do
    // not move, so a slot's address stays valid as long as the singleton pool.
    std::uint64_t singletonPoolId() const noexcept { return singletonPoolId_; }
    const detail::AnyInstance* singletonSlot(const Key& key) const {
        return get(key, PoolScope::singleton);
    }

  private:
    struct SingletonPool;

    void abandonPass() noexcept;
    void drain();

    std::size_t depth_ = 0;
    // True when the next outermost exit has to drain: set by every block added and by every
    // graph instance stored while draining is enabled, cleared once drained or abandoned.
    bool pending_ = false;
    detail::GraphStore graph_;
    std::shared_ptr<SingletonPool> singletonPool_;
    std::uint64_t singletonPoolId_;
    // Drain blocks in list order are: configBlocks_ reversed, then linkingBlocks_ (front
    // insertion of configuration blocks without shifting a vector).
    std::vector<DrainBlock> configBlocks_;
    std::vector<DrainBlock> linkingBlocks_;
    std::vector<CopyBlock> copyBlocks_;
    std::vector<DrainBlock> takenConfigBlocks_;
    std::vector<DrainBlock> takenLinkingBlocks_;
    std::vector<CopyBlock> takenCopyBlocks_;
    bool isGraphDrainingEnabled_ = true;
    std::vector<const Key*> building_;
};

}  // namespace kel
