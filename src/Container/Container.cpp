#include "kel/Container/Container.hpp"

#include "kel/Container/ProxyResolver.hpp"
#include "kel/Platform/FatalError.hpp"

#include <algorithm>
#include <string>

namespace kel {

const std::shared_ptr<Container>& Container::shared() {
    static const std::shared_ptr<Container> container = make();
    return container;
}

Container::Container(Private)
    : pool_(std::make_shared<Pool>()), callbackStore_(std::make_shared<CallbackStore>()) {}

Container::Container(Private, Environment environment, detail::DefinitionIndex definitions,
                     std::shared_ptr<Pool> pool,
                     std::vector<std::shared_ptr<detail::DefinitionCore>> lazyDefinitions,
                     std::shared_ptr<CallbackStore> callbackStore)
    : environment(std::move(environment)),
      definitions_(std::move(definitions)),
      pool_(std::move(pool)),
      lazyDefinitions_(std::move(lazyDefinitions)),
      callbackStore_(std::move(callbackStore)) {}

std::shared_ptr<Container> Container::privateContainer() {
    return std::make_shared<Container>(Private{}, environment, detail::DefinitionIndex{}, pool_,
                                       std::vector<std::shared_ptr<detail::DefinitionCore>>{},
                                       callbackStore_);
}

std::shared_ptr<Container> Container::currentObjectGraphContainer(ZFObjectGraphTrait trait) {
    std::shared_ptr<Pool> pool;
    switch (trait) {
        case ZFObjectGraphTrait::shared:
            pool = pool_;
            break;
        case ZFObjectGraphTrait::copied:
            pool = pool_->copy();
            break;
        default:
            fatalError("unexpected ZFObjectGraphTrait value " +
                       std::to_string(static_cast<long>(trait)));
    }
    auto container = std::make_shared<Container>(Private{}, environment, definitions_, pool,
                                                 lazyDefinitions_, callbackStore_);
    pool->addDrainCopyPoolGraphBlock(
        [weakContainer = std::weak_ptr<Container>(container)](const std::shared_ptr<Pool>& copied) {
            if (auto alive = weakContainer.lock()) {
                alive->pool_ = copied;
            }
        });
    return container;
}

void Container::indexLazyDefinitions() {
    definitions_.reserve(definitions_.size() + lazyDefinitions_.size());
    for (auto& definition : lazyDefinitions_) {
        definitions_.insertOrAssign(std::move(definition));
    }
    lazyDefinitions_.clear();
}

namespace {

// The built singleton of `definition` in `pool`'s singleton pool, or null (not a singleton, or
// not built yet). The slot is remembered in the definition, so this is a lookup only once.
const detail::AnyInstance* builtSingleton(const detail::DefinitionCore& definition,
                                          const Pool& pool) {
    if (definition.scope() != Scope::singleton) {
        return nullptr;
    }
    const detail::AnyInstance* slot = definition.rememberedSingleton(pool.singletonPoolId());
    if (slot == nullptr) {
        slot = pool.singletonSlot(definition.key());
        if (slot == nullptr) {
            return nullptr;
        }
        definition.rememberSingleton(pool.singletonPoolId(), slot);
    }
    return slot->type == definition.key().addr ? slot : nullptr;
}

}  // namespace

detail::AnyInstance Container::resolveInstance(const Key& key, const ProxyResolver& resolver,
                                               const std::shared_ptr<Context>& context) {
    if (context) {
        if (const detail::AnyInstance* overridden = context->object(key)) {
            return *overridden;
        }
    }
    if (!lazyDefinitions_.empty()) {
        indexLazyDefinitions();
    }
    const std::shared_ptr<detail::DefinitionCore>* found = definitions_.find(key);
    if (found == nullptr) {
        return {};
    }
    Pool* pool = pool_.get();
    // An outermost pass drains, and a copy block of the pool may give this container another
    // pool: hold this one until the pass is over. Such a block is one added when this container
    // was made (its own), so it is pending now if at all; with none pending the pool is held by
    // this container throughout. A nested pass runs inside an outermost one that holds it.
    std::shared_ptr<Pool> drainingPool;
    if (pool->depth() == 0) {
        if (pool->hasDrainCopyPoolGraphBlocks()) {
            drainingPool = pool_;
        }
        if (resolver.objc()) {
            resolver.objc()->linkResolverWithLinkBlock([pool](std::function<void()> drain) {
                pool->addDrainBlock(DrainAction::linking,
                                    [drain = std::move(drain)]() mutable { drain(); });
            });
            // The bridged side ran code of its own, which may have re-indexed this container
            // (moving its slots): find the definition again. Definitions are never removed.
            found = definitions_.find(key);
        }
    }
    // The slot stays put until the build below, which holds its own reference first.
    const std::shared_ptr<detail::DefinitionCore>& definition = *found;
    return pool->graphPass([&] {
        if (const detail::AnyInstance* built = builtSingleton(*definition, *pool)) {
            return *built;
        }
        return scopedBuild(definition, resolver, context, *pool);
    });
}

detail::AnyInstance Container::scopedBuild(const std::shared_ptr<detail::DefinitionCore>& entry,
                                           const ProxyResolver& resolver,
                                           const std::shared_ptr<Context>& context, Pool& pool) {
    // The caller has found no built singleton; a graph-scoped instance may be in the graph.
    const Scope scope = entry->scope();
    const PoolScope poolScope = scope == Scope::singleton ? PoolScope::singleton : PoolScope::graph;
    if (scope == Scope::graph) {
        const Key& pooledKey = entry->key();
        if (const detail::AnyInstance* pooled = pool.get(pooledKey, PoolScope::graph);
            pooled != nullptr && pooled->type == pooledKey.addr) {
            return *pooled;
        }
    }
    // `entry` lives in definitions_, which a nested resolution may re-index: hold the definition
    // from here on.
    std::shared_ptr<detail::DefinitionCore> definition = entry;
    const Key& key = definition->key();

    ProxyResolver buildResolver(resolver.objc(), resolver.publicResolver(),
                                definition->privateContainer());
    pool.beginBuilding(key);
    struct EndBuilding {
        Pool& pool;
        ~EndBuilding() { pool.endBuilding(); }
    };
    detail::AnyInstance instance;
    {
        EndBuilding endBuilding{pool};
        instance = definition->build(environment, buildResolver);
        definition->registerCallbacks(callbackStore_, instance);
    }

    if (scope != Scope::none) {
        pool.set(key, poolScope, instance);
    }
    pool.addDrainBlock(DrainAction::config,
                       [self = shared_from_this(), definition = std::move(definition), instance,
                        buildResolver = std::move(buildResolver), context] {
                           self->configureAndFire(*definition, instance, buildResolver, context);
                       });
    return instance;
}

void Container::configureAndFire(const detail::DefinitionCore& definition,
                                 const detail::AnyInstance& instance,
                                 const ProxyResolver& buildResolver,
                                 const std::shared_ptr<Context>& context) {
    if (const auto& configuration = definition.configuration()) {
        configuration->configure(instance, buildResolver);
    }
    fireCallbacks(*callbackStore_, definition, instance, buildResolver, context);
    if (context) {
        fireCallbacks(*context->sharedCallbackStore(), definition, instance, buildResolver,
                      context);
    }
}

void Container::fireCallbacks(const CallbackStore& store, const detail::DefinitionCore& definition,
                              const detail::AnyInstance& instance,
                              const ProxyResolver& buildResolver,
                              const std::shared_ptr<Context>& context) {
    if (store.isEmpty()) {
        return;
    }
    const CallbackStore::List callbacks = store.lookup(definition.key().addr, definition.name());
    for (const auto& callback : callbacks) {
        std::shared_ptr<Container> privateContainer = callback->privateContainer();
        if (!privateContainer) {
            continue;
        }
        if (isPreparedForLockingGraph()) {
            // Resolve within the graph being built, on both sides.
            std::shared_ptr<ZFResolver> objc =
                buildResolver.objc()
                    ? buildResolver.objc()->currentObjectGraphResolver(ZFObjectGraphTrait::shared)
                    : nullptr;
            ProxyResolver resolver(
                std::move(objc),
                buildResolver.publicResolver()->currentObjectGraphContainer(
                    ZFObjectGraphTrait::shared),
                privateContainer->currentObjectGraphContainer(ZFObjectGraphTrait::shared), context);
            callback->fire(instance, resolver);
        } else {
            ProxyResolver resolver(buildResolver.objc(), buildResolver.publicResolver(),
                                   std::move(privateContainer), context);
            callback->fire(instance, resolver);
        }
    }
}

const detail::DefinitionCore* Container::registration(const Key& key) const {
    for (auto definition = lazyDefinitions_.rbegin(); definition != lazyDefinitions_.rend();
         ++definition) {
        if ((*definition)->key() == key) {
            return definition->get();
        }
    }
    const std::shared_ptr<detail::DefinitionCore>* found = definitions_.find(key);
    return found == nullptr ? nullptr : found->get();
}

std::vector<std::optional<std::string>> Container::registeredNames(std::uintptr_t type) const {
    std::vector<std::optional<std::string>> names;
    auto note = [&](const Key& key) {
        if (key.addr == type &&
            std::find(names.begin(), names.end(), key.namespace_) == names.end()) {
            names.push_back(key.namespace_);
        }
    };
    definitions_.forEach([&](const detail::DefinitionCore& definition) { note(definition.key()); });
    for (const auto& definition : lazyDefinitions_) {
        note(definition->key());
    }
    return names;
}

}  // namespace kel
