// The sibling framework's interfaces that the container talks to: its resolver, its registry of
// factories keyed by text, its definitions, contexts and callback registrations.
//
// The container only calls these; an application with a sibling side implements them over it,
// and InMemoryZorbFoundation.hpp ships a complete in-memory implementation for applications
// without one (and for tests). Operations that "raise" on the sibling side throw kel::Exception;
// the container calls the raising ones through Exception::kf_tryCatch.
//
// Thread rules: main-thread work, like the container's registration and resolution.
// Ownership: objects are shared (std::shared_ptr); the container holds them strongly.
#pragma once

#include "kel/Export.hpp"
#include "kel/Platform/Object.hpp"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kel {

class CallbackRegistrationType;

// How a current-graph resolver or container relates to the graph being built: 0 shares the very
// pool of the running pass, 1 takes a copy of it that keeps its graph after the pass drains.
enum class ZFObjectGraphTrait : long {
    shared = 0,
    copied = 1,
};

// Per-resolution overrides on the sibling side.
class KEL_EXPORT ZFContext {
  public:
    virtual ~ZFContext() = default;
    // A context holding the receiver's overrides on top of `other`'s.
    virtual std::shared_ptr<ZFContext> mergeWithContext(
        const std::shared_ptr<ZFContext>& other) = 0;
};

class ZFResolver;

// A registration on the sibling side; its builder messages return nothing.
class KEL_EXPORT ZFDefinition {
  public:
    using Configuration =
        std::function<void(const std::shared_ptr<Object>&, const std::shared_ptr<ZFResolver>&)>;

    virtual ~ZFDefinition() = default;
    // 0 no reuse, 1 one per graph, 2 singleton.
    virtual void inScope(long scope) = 0;
    virtual void withConfiguration(Configuration configuration) = 0;
    virtual void canBeOverridden(bool flag) = 0;
};

class KEL_EXPORT ZFResolver {
  public:
    // Given to the sibling resolver at the start of every outermost resolution of the container.
    // The sibling side calls it with a callable of its own; the container runs that callable as
    // a linking drain block when the pass ends, so both sides forget their graphs together. The
    // block is valid only during the call to linkResolverWithLinkBlock.
    using LinkBlock = std::function<void(std::function<void()> drain)>;

    virtual ~ZFResolver() = default;
    // The object registered under the text key and name, or null. May raise.
    virtual std::shared_ptr<Object> unsafeResolveForKey(
        const std::string& key, const std::optional<std::string>& name,
        const std::shared_ptr<ZFContext>& context) = 0;
    virtual std::shared_ptr<ZFResolver> currentObjectGraphResolver(ZFObjectGraphTrait trait) = 0;
    virtual void linkResolverWithLinkBlock(LinkBlock block) = 0;
};

class KEL_EXPORT ZFRegistrationContainer {
  public:
    using Factory = std::function<std::shared_ptr<Object>(const std::shared_ptr<ZFResolver>&)>;

    virtual ~ZFRegistrationContainer() = default;
    virtual std::shared_ptr<ZFDefinition> unsafeRegisterForKey(
        const std::string& key, const std::optional<std::string>& name, Factory factory) = 0;
};

// The sibling side's instance-callback surface. When the container builds an instance whose
// definition carries a bridged callback request, the sibling side is handed the instance and a
// CallbackRegistrationType through which it registers its callbacks for that instance.
class KEL_EXPORT ZFCallbackRegistration {
  public:
    virtual ~ZFCallbackRegistration() = default;
    virtual void registerCallbacksForInstance(const std::shared_ptr<Object>& instance,
                                              CallbackRegistrationType& registration) = 0;
};

class KEL_EXPORT ZFContainerRegistry {
  public:
    virtual ~ZFContainerRegistry() = default;
    virtual std::shared_ptr<ZFCallbackRegistration> callback() = 0;
    virtual std::shared_ptr<ZFRegistrationContainer> publicContainer() = 0;
};

}  // namespace kel
