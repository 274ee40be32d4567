// kel::detail::WeakRegistration and kel::detail::WeakRegistry — the registration token and the
// ordered token list shared by the life-cycle managers (application state, remote notifications,
// background fetch).
//
// A WeakRegistration holds its registrant weakly, an optional fixed payload (the pattern of a
// notification handler) and a weak keep-alive object, which starts as the registrant itself.
// The registration is in force while the keep-alive object lives; keepAlive() re-points it.
//
// A WeakRegistry keeps its tokens in registration order. forEachLive() dispatches over the list
// as it stood when the dispatch began: tokens added or removed by a registrant during the
// dispatch take effect from the next one. The list is copy-on-write, so that snapshot costs one
// reference count on the list, not one per token; a mutation made while a dispatch holds the
// snapshot copies the list once. Nothing is pruned unless the owning manager asks (prune()).
//
// Thread rules: none of its own. The managers are main-thread objects; registrants may die on
// any thread, which only makes their weak references expire.
// Ownership: the registry owns its tokens (std::shared_ptr) and hands the same tokens to callers
// as std::shared_ptr<Disposable>; registrants and keep-alive objects are never kept alive by it.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "kel/Lifecycle/Disposable.hpp"

namespace kel::detail {

struct NoRegistrationPayload {};

template <class Registrant, class Payload = NoRegistrationPayload>
class WeakRegistration final : public Disposable {
  public:
    WeakRegistration(const std::shared_ptr<Registrant>& registrant, Payload payload)
        : registrant_(registrant), payload_(std::move(payload)), keepAliveObject_(registrant) {}

    void keepAlive(std::shared_ptr<void> object) override { keepAliveObject_ = std::move(object); }

    bool isInForce() const noexcept { return !keepAliveObject_.expired(); }

    // The registrant, owned for the length of a call, when the registration is in force and
    // the registrant lives; null otherwise.
    std::shared_ptr<Registrant> liveRegistrant() const noexcept {
        if (!isInForce()) {
            return nullptr;
        }
        return registrant_.lock();
    }

    // True if the registrant lives and is the very object `registrant`.
    bool holds(const Registrant* registrant) const noexcept {
        return registrant_.lock().get() == registrant;
    }

    const Payload& payload() const noexcept { return payload_; }

  private:
    std::weak_ptr<Registrant> registrant_;
    [[no_unique_address]] Payload payload_;
    std::weak_ptr<void> keepAliveObject_;
};

template <class Registrant, class Payload = NoRegistrationPayload>
class WeakRegistry {
  public:
    using Token = WeakRegistration<Registrant, Payload>;

    WeakRegistry() : tokens_(std::make_shared<List>()) {}
    WeakRegistry(const WeakRegistry&) = delete;
    WeakRegistry& operator=(const WeakRegistry&) = delete;

    // Appends a token for `registrant` (no duplicate check) and returns it.
    std::shared_ptr<Token> add(const std::shared_ptr<Registrant>& registrant,
                               Payload payload = {}) {
        auto token = std::make_shared<Token>(registrant, std::move(payload));
        mutableTokens().push_back(token);
        return token;
    }

    // Calls visit(registrant, payload) for every token of the list as it stands now, in
    // registration order, skipping tokens out of force and registrants that died.
    template <class Visit>
    void forEachLive(Visit&& visit) const {
        const std::shared_ptr<const List> snapshot = tokens_;
        for (const std::shared_ptr<Token>& token : *snapshot) {
            if (std::shared_ptr<Registrant> registrant = token->liveRegistrant()) {
                visit(*registrant, token->payload());
            }
        }
    }

    // Keeps only the tokens whose keep-alive object lives, in their order.
    void prune() {
        std::erase_if(mutableTokens(), [](const auto& token) { return !token->isInForce(); });
    }

    // Removes the first token whose registrant lives and is `registrant`; true if one was.
    bool removeFirst(const Registrant* registrant) {
        List& tokens = mutableTokens();
        for (auto it = tokens.begin(); it != tokens.end(); ++it) {
            if ((*it)->holds(registrant)) {
                tokens.erase(it);
                return true;
            }
        }
        return false;
    }

    // Tokens in the list, in force or not.
    std::size_t size() const noexcept { return tokens_->size(); }
    bool empty() const noexcept { return tokens_->empty(); }

  private:
    using List = std::vector<std::shared_ptr<Token>>;

    // The list, made exclusive first if a dispatch still holds it as its snapshot.
    List& mutableTokens() {
        if (tokens_.use_count() > 1) {
            tokens_ = std::make_shared<List>(*tokens_);
        }
        return *tokens_;
    }

    std::shared_ptr<List> tokens_;  // never null; shared only with dispatches in progress
};

}  // namespace kel::detail
