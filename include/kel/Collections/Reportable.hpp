// kel::Reportable<Value> — a plain list of callables that trigger(value) calls in order.
//
// then(block) appends a callable; trigger(value) calls every callable of the list as it stood
// when trigger began, in list order (one appended meanwhile waits for the next trigger);
// reset() forgets them all and releases the list's storage. Unlike Observable it holds no value
// and no keep-alive objects.
//
// Thread rules: none of its own; then, trigger and reset belong on one thread (the main thread
// in practice).
// Ownership: not copyable; keep it by value or through std::shared_ptr.
#pragma once

#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace kel {

template <class Value>
class Reportable {
  public:
    using Block = std::function<void(const Value&)>;

    Reportable() = default;
    Reportable(const Reportable&) = delete;
    Reportable& operator=(const Reportable&) = delete;

    // Appends `block`; returns this Reportable, for chaining.
    Reportable& then(Block block) {
        if (!observers_) {
            observers_ = std::make_shared<BlockList>();
        } else if (observers_.use_count() > 1) {
            observers_ = std::make_shared<BlockList>(*observers_);
        }
        observers_->push_back(std::move(block));
        return *this;
    }

    void trigger(const Value& value) {
        const std::shared_ptr<const BlockList> snapshot = observers_;
        if (!snapshot) {
            return;
        }
        for (const Block& block : *snapshot) {
            block(value);
        }
    }

    void reset() { observers_.reset(); }

  private:
    using BlockList = std::vector<Block>;
    // Shared with a trigger walking it; an append during the walk copies it first. Null when
    // empty. Not locked: one thread (see the thread rules).
    std::shared_ptr<BlockList> observers_;
};

}  // namespace kel
