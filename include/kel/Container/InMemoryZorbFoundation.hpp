// An in-memory implementation of the sibling framework's interfaces, for applications without a
// sibling side and for tests.
//
// ZFInMemoryRegistry is at once the registry, its registration container and its resolver. It
// stores factories by text key and name; definitions honour inScope (0 none, 1 graph,
// 2 singleton), withConfiguration (run on each built instance right after its factory) and
// canBeOverridden (default true). It raises kel::Exception where a registry would raise:
// "ZFRegistrationException" for a second registration of a key marked not overridable,
// "ZFInvalidScopeException" for a scope outside 0...2, "ZFCircularDependencyException" for a
// factory that resolves itself; and it lets the exceptions its factories raise through.
// Graph-scoped objects are forgotten at the end of its own outermost resolution, or, while it is
// linked to a container's resolution (linkResolverWithLinkBlock), when that resolution drains.
//
// Thread rules: main-thread work, like the container; no lock.
// Ownership: shared; make it with ZFInMemoryRegistry::make().
#pragma once

#include "kel/Container/Callbacks.hpp"
#include "kel/Container/ZorbFoundation.hpp"
#include "kel/Export.hpp"
#include "kel/Platform/Object.hpp"

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kel {

// A bridged context: objects by text key and name, which resolutions return instead of building.
class KEL_EXPORT ZFInMemoryContext final : public Object, public ZFContext {
  public:
    static std::shared_ptr<ZFInMemoryContext> make() {
        return std::shared_ptr<ZFInMemoryContext>(new ZFInMemoryContext());
    }

    void setObject(const std::string& key, const std::optional<std::string>& name,
                   std::shared_ptr<Object> object);
    std::shared_ptr<Object> object(const std::string& key,
                                   const std::optional<std::string>& name) const;

    // A new context with `other`'s objects and, over them, this context's.
    std::shared_ptr<ZFContext> mergeWithContext(const std::shared_ptr<ZFContext>& other) override;

  private:
    ZFInMemoryContext() = default;

    std::map<std::pair<std::string, std::optional<std::string>>, std::shared_ptr<Object>> objects_;
};

// Hands each instance it is told about to its hooks, in the order they were added.
class KEL_EXPORT ZFInMemoryCallbackRegistration final : public Object,
                                                        public ZFCallbackRegistration {
  public:
    using Hook = std::function<void(const std::shared_ptr<Object>&, CallbackRegistrationType&)>;

    static std::shared_ptr<ZFInMemoryCallbackRegistration> make() {
        return std::shared_ptr<ZFInMemoryCallbackRegistration>(
            new ZFInMemoryCallbackRegistration());
    }

    void addHook(Hook hook) { hooks_.push_back(std::move(hook)); }
    void registerCallbacksForInstance(const std::shared_ptr<Object>& instance,
                                      CallbackRegistrationType& registration) override;

  private:
    ZFInMemoryCallbackRegistration() = default;

    std::vector<Hook> hooks_;
};

class KEL_EXPORT ZFInMemoryRegistry final
    : public Object,
      public ZFContainerRegistry,
      public ZFRegistrationContainer,
      public ZFResolver,
      public std::enable_shared_from_this<ZFInMemoryRegistry> {
  public:
    static std::shared_ptr<ZFInMemoryRegistry> make();

    std::shared_ptr<ZFCallbackRegistration> callback() override;
    std::shared_ptr<ZFRegistrationContainer> publicContainer() override;

    std::shared_ptr<ZFDefinition> unsafeRegisterForKey(const std::string& key,
                                                       const std::optional<std::string>& name,
                                                       Factory factory) override;
    std::shared_ptr<Object> unsafeResolveForKey(const std::string& key,
                                                const std::optional<std::string>& name,
                                                const std::shared_ptr<ZFContext>& context) override;
    // The registry resolves in one graph for both traits: it answers itself.
    std::shared_ptr<ZFResolver> currentObjectGraphResolver(ZFObjectGraphTrait trait) override;
    void linkResolverWithLinkBlock(LinkBlock block) override;

    // The callback registration the registry answers (the same object every time).
    const std::shared_ptr<ZFInMemoryCallbackRegistration>& callbackRegistration() const noexcept {
        return callbackRegistration_;
    }
    // How often `callback()` was asked, and how often a container linked a resolution.
    std::size_t callbackRequests() const noexcept { return callbackRequests_; }
    std::size_t linkCount() const noexcept { return linkCount_; }

  private:
    class Definition;
    using Slot = std::pair<std::string, std::optional<std::string>>;

    ZFInMemoryRegistry();

    std::map<Slot, std::shared_ptr<Definition>> definitions_;
    std::map<Slot, std::shared_ptr<Object>> graph_;
    std::map<Slot, std::shared_ptr<Object>> singletons_;
    std::set<Slot> building_;
    std::shared_ptr<ZFInMemoryCallbackRegistration> callbackRegistration_;
    std::size_t callbackRequests_ = 0;
    std::size_t linkCount_ = 0;
    std::size_t depth_ = 0;
    bool linked_ = false;
};

}  // namespace kel
