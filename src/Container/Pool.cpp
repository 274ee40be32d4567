#include "kel/Container/Pool.hpp"

#include "kel/Platform/FatalError.hpp"

#include <atomic>
#include <cstdint>
#include <string>

namespace kel {

struct Pool::SingletonPool {
    std::unordered_map<Key, detail::AnyInstance> singletons;
};

namespace {

std::uint64_t newSingletonPoolId() noexcept {
    // Pools may be made on any thread (each is then used on the main thread).
    static std::atomic<std::uint64_t> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

Pool::Pool()
    : singletonPool_(std::make_shared<SingletonPool>()), singletonPoolId_(newSingletonPoolId()) {}

std::shared_ptr<Pool> Pool::copy() const {
    auto copied = std::make_shared<Pool>();
    copied->graph_ = graph_;
    copied->singletonPool_ = singletonPool_;
    copied->singletonPoolId_ = singletonPoolId_;
    copied->isGraphDrainingEnabled_ = false;
    return copied;
}

const detail::AnyInstance* Pool::get(const Key& key, PoolScope scope) const {
    if (scope == PoolScope::graph) {
        return graph_.find(key);
    }
    const auto& instances = singletonPool_->singletons;
    if (instances.empty()) {
        return nullptr;
    }
    auto found = instances.find(key);
    return found == instances.end() ? nullptr : &found->second;
}

void Pool::set(const Key& key, PoolScope scope, detail::AnyInstance instance) {
    if (scope == PoolScope::graph) {
        graph_.insertOrAssign(key, std::move(instance));
        pending_ = pending_ || isGraphDrainingEnabled_;
    } else {
        singletonPool_->singletons.insert_or_assign(key, std::move(instance));
    }
}

void Pool::addDrainBlock(DrainAction action, DrainBlock block) {
    (action == DrainAction::config ? configBlocks_ : linkingBlocks_).push_back(std::move(block));
    pending_ = true;
}

void Pool::beginBuilding(const Key& key) {
    for (std::size_t index = 0; index < building_.size(); ++index) {
        if (*building_[index] == key) {
            std::string chain;
            for (std::size_t link = index; link < building_.size(); ++link) {
                chain += building_[link]->description() + " -> ";
            }
            fatalError("factory cycle while resolving: " + chain + key.description() +
                       " (break it with thenConfigure)");
        }
    }
    building_.push_back(&key);
}

void Pool::abandonPass() noexcept {
    if (depth_ == 1) {
        configBlocks_.clear();
        linkingBlocks_.clear();
        copyBlocks_.clear();
        takenConfigBlocks_.clear();
        takenLinkingBlocks_.clear();
        takenCopyBlocks_.clear();
        building_.clear();
        if (isGraphDrainingEnabled_) {
            graph_.clear();
        }
        pending_ = false;
    }
    if (depth_ > 0) {
        --depth_;
    }
}

void Pool::drain() {
    // Draining happens only at depth 1 and blocks run nested passes, so the taken lists are
    // members that keep their capacity from one pass to the next.
    auto& config = takenConfigBlocks_;
    auto& linking = takenLinkingBlocks_;
    auto& copies = takenCopyBlocks_;
    while (!configBlocks_.empty() || !linkingBlocks_.empty() || !copyBlocks_.empty()) {
        config.swap(configBlocks_);
        linking.swap(linkingBlocks_);
        copies.swap(copyBlocks_);
        for (auto block = config.rbegin(); block != config.rend(); ++block) {
            (*block)();
        }
        for (DrainBlock& block : linking) {
            block();
        }
        if (!copies.empty()) {
            std::shared_ptr<Pool> copied = copy();
            for (CopyBlock& block : copies) {
                block(copied);
            }
        }
        config.clear();
        linking.clear();
        copies.clear();
    }
    if (isGraphDrainingEnabled_ && !graph_.empty()) {
        graph_.clear();
    }
    pending_ = false;
}

}  // namespace kel
