#include "kel/Container/InMemoryZorbFoundation.hpp"

#include "kel/Platform/Exception.hpp"

#include <string>

namespace kel {

namespace {

std::string describeSlot(const std::string& key, const std::optional<std::string>& name) {
    return "\"" + key + "\"" + (name ? " (name: \"" + *name + "\")" : std::string());
}

}  // namespace

void ZFInMemoryContext::setObject(const std::string& key, const std::optional<std::string>& name,
                                  std::shared_ptr<Object> object) {
    objects_.insert_or_assign({key, name}, std::move(object));
}

std::shared_ptr<Object> ZFInMemoryContext::object(const std::string& key,
                                                  const std::optional<std::string>& name) const {
    auto found = objects_.find({key, name});
    return found == objects_.end() ? nullptr : found->second;
}

std::shared_ptr<ZFContext> ZFInMemoryContext::mergeWithContext(
    const std::shared_ptr<ZFContext>& other) {
    std::shared_ptr<ZFInMemoryContext> merged = make();
    if (auto* older = dynamic_cast<ZFInMemoryContext*>(other.get())) {
        merged->objects_ = older->objects_;
    }
    for (const auto& [slot, object] : objects_) {
        merged->objects_.insert_or_assign(slot, object);
    }
    return merged;
}

void ZFInMemoryCallbackRegistration::registerCallbacksForInstance(
    const std::shared_ptr<Object>& instance, CallbackRegistrationType& registration) {
    for (const Hook& hook : hooks_) {
        hook(instance, registration);
    }
}

class ZFInMemoryRegistry::Definition final : public ZFDefinition {
  public:
    explicit Definition(Factory factory) : factory(std::move(factory)) {}

    void inScope(long value) override {
        if (value < 0 || value > 2) {
            throw Exception("ZFInvalidScopeException",
                            "scope " + std::to_string(value) + " is not 0, 1 or 2");
        }
        scope = value;
    }
    void withConfiguration(Configuration block) override { configuration = std::move(block); }
    void canBeOverridden(bool flag) override { overridable = flag; }

    Factory factory;
    long scope = 1;
    Configuration configuration;
    bool overridable = true;
};

ZFInMemoryRegistry::ZFInMemoryRegistry()
    : callbackRegistration_(ZFInMemoryCallbackRegistration::make()) {}

std::shared_ptr<ZFInMemoryRegistry> ZFInMemoryRegistry::make() {
    return std::shared_ptr<ZFInMemoryRegistry>(new ZFInMemoryRegistry());
}

std::shared_ptr<ZFCallbackRegistration> ZFInMemoryRegistry::callback() {
    ++callbackRequests_;
    return callbackRegistration_;
}

std::shared_ptr<ZFRegistrationContainer> ZFInMemoryRegistry::publicContainer() {
    return shared_from_this();
}

std::shared_ptr<ZFDefinition> ZFInMemoryRegistry::unsafeRegisterForKey(
    const std::string& key, const std::optional<std::string>& name, Factory factory) {
    Slot slot{key, name};
    if (auto existing = definitions_.find(slot);
        existing != definitions_.end() && !existing->second->overridable) {
        throw Exception(
            "ZFRegistrationException",
            "the registration for key " + describeSlot(key, name) + " cannot be overridden");
    }
    auto definition = std::make_shared<Definition>(std::move(factory));
    definitions_.insert_or_assign(std::move(slot), definition);
    return definition;
}

std::shared_ptr<Object> ZFInMemoryRegistry::unsafeResolveForKey(
    const std::string& key, const std::optional<std::string>& name,
    const std::shared_ptr<ZFContext>& context) {
    Slot slot{key, name};
    if (auto* overrides = dynamic_cast<ZFInMemoryContext*>(context.get())) {
        if (auto object = overrides->object(key, name)) {
            return object;
        }
    }
    auto found = definitions_.find(slot);
    if (found == definitions_.end()) {
        return nullptr;
    }
    std::shared_ptr<Definition> definition = found->second;
    auto& pool = definition->scope == 2 ? singletons_ : graph_;
    if (definition->scope != 0) {
        if (auto pooled = pool.find(slot); pooled != pool.end()) {
            return pooled->second;
        }
    }
    if (building_.contains(slot)) {
        throw Exception("ZFCircularDependencyException",
                        "the factory for key " + describeSlot(key, name) + " resolves itself");
    }

    struct Pass {
        ZFInMemoryRegistry& registry;
        const Slot& slot;
        ~Pass() {
            registry.building_.erase(slot);
            if (--registry.depth_ == 0 && !registry.linked_) {
                registry.graph_.clear();
            }
        }
    };
    ++depth_;
    building_.insert(slot);
    Pass pass{*this, slot};
    std::shared_ptr<ZFResolver> self = shared_from_this();
    std::shared_ptr<Object> object = definition->factory(self);
    if (definition->scope != 0) {
        pool.insert_or_assign(slot, object);
    }
    if (definition->configuration) {
        definition->configuration(object, self);
    }
    return object;
}

std::shared_ptr<ZFResolver> ZFInMemoryRegistry::currentObjectGraphResolver(ZFObjectGraphTrait) {
    return shared_from_this();
}

void ZFInMemoryRegistry::linkResolverWithLinkBlock(LinkBlock block) {
    ++linkCount_;
    linked_ = true;
    // The container runs the drain callable before its resolution returns, while the resolver
    // that holds this registry is alive, so a plain pointer is enough (and needs no allocation).
    block([registry = this] {
        registry->linked_ = false;
        if (registry->depth_ == 0) {
            registry->graph_.clear();
        }
    });
}

}  // namespace kel
