#include "kel/Container/ProxyResolver.hpp"

#include "kel/Platform/DomainError.hpp"
#include "kel/Platform/Exception.hpp"
#include "kel/Platform/Log.hpp"

#include <cstdio>
#include <sstream>

namespace kel {

ProxyResolver::ProxyResolver(std::shared_ptr<ZFResolver> objcResolver,
                             std::shared_ptr<Container> publicResolver,
                             std::shared_ptr<Container> privateResolver,
                             std::shared_ptr<Context> context)
    : objc_(std::move(objcResolver)),
      publicResolver_(std::move(publicResolver)),
      privateResolver_(privateResolver ? std::move(privateResolver)
                                       : publicResolver_->privateContainer()),
      context_(std::move(context)) {}

std::shared_ptr<ResolverType> ProxyResolver::currentObjectGraphResolver(
    ZFObjectGraphTrait trait) const {
    std::shared_ptr<ZFResolver> objc = objc_ ? objc_->currentObjectGraphResolver(trait) : nullptr;
    return std::make_shared<ProxyResolver>(
        std::move(objc), publicResolver_->currentObjectGraphContainer(trait),
        privateResolver_->currentObjectGraphContainer(trait), context_);
}

detail::AnyInstance ProxyResolver::resolveInstance(const Key& key,
                                                   const runtime::ClassForm* classForm,
                                                   const detail::ContextBlock* block) const {
    if (block == nullptr) {
        // The common case: no override block, so no fresh context and no merge.
        if (detail::AnyInstance found = publicResolver_->resolveInstance(key, *this, context_)) {
            return found;
        }
        if (detail::AnyInstance found = privateResolver_->resolveInstance(key, *this, context_)) {
            return found;
        }
        return classForm == nullptr || !objc_ ? detail::AnyInstance{}
                                              : resolveBridged(key, *classForm, context_);
    }
    const std::shared_ptr<Context> fresh = std::make_shared<Context>(
        context_ ? context_->sharedCallbackStore() : std::make_shared<CallbackStore>(),
        publicResolver_, privateResolver_);
    (*block)(*fresh);
    // The context to resolve with; the merge runs before each container is asked.
    auto contextInUse = [&]() -> const std::shared_ptr<Context>& {
        if (context_) {
            fresh->mergeObjects(*context_);
            std::shared_ptr<ZFContext> bridged = fresh->bridgedContext();
            fresh->setBridgedContext(bridged ? bridged->mergeWithContext(context_->bridgedContext())
                                             : nullptr);
        }
        return fresh;
    };

    if (detail::AnyInstance found = publicResolver_->resolveInstance(key, *this, contextInUse())) {
        return found;
    }
    if (detail::AnyInstance found = privateResolver_->resolveInstance(key, *this, contextInUse())) {
        return found;
    }
    if (classForm == nullptr || !objc_) {
        return {};
    }
    return resolveBridged(key, *classForm, fresh);
}

detail::AnyInstance ProxyResolver::resolveBridged(const Key& key,
                                                  const runtime::ClassForm& classForm,
                                                  const std::shared_ptr<Context>& context) const {
    std::shared_ptr<Object> answer;
    DomainError error("", 0);
    const bool returned = Exception::kf_tryCatch(
        [&] {
            answer = objc_->unsafeResolveForKey(classForm.bridgedKey(), key.namespace_,
                                                context ? context->bridgedContext() : nullptr);
        },
        &error);
    if (!returned) {
        Log::write(LogLevel::error, "Failed to resolve from objc resolver, error=%{public}@",
                   std::string(error.what()));
        return {};
    }
    if (!answer) {
        return {};
    }
    return classForm.fromObject(answer);
}

namespace {

const char* scopeName(Scope scope) {
    switch (scope) {
        case Scope::none:
            return "none";
        case Scope::graph:
            return "graph";
        case Scope::singleton:
            return "singleton";
    }
    return "unknown";
}

std::string describeRegistration(const Container& container, const Key& key) {
    const detail::DefinitionCore* definition = container.registration(key);
    if (definition == nullptr) {
        return "not registered";
    }
    return std::string("registered, scope ") + scopeName(definition->scope());
}

std::string describeNames(const std::vector<std::optional<std::string>>& names, const Key& key) {
    std::string text;
    for (const auto& name : names) {
        if (name == key.namespace_) {
            continue;
        }
        text += text.empty() ? "" : ", ";
        text += name ? "\"" + *name + "\"" : "(no name)";
    }
    return text.empty() ? "none" : text;
}

}  // namespace

std::string ProxyResolver::explainKey(const Key& key, const runtime::ClassForm* classForm) const {
    std::ostringstream text;
    char word[32];
    std::snprintf(word, sizeof word, "%#zx", static_cast<std::size_t>(key.addr));
    text << "resolving " << key.description() << "\n";
    text << "  key: type word " << word << ", "
         << (key.namespace_ ? "name \"" + *key.namespace_ + "\"" : "no name") << "\n";
    int step = 1;
    if (context_) {
        text << "  " << step++ << ". context: "
             << (context_->object(key) != nullptr ? "overrides this key"
                                                  : "no override for this key")
             << "\n";
    }
    text << "  " << step++ << ". public container: " << describeRegistration(*publicResolver_, key)
         << "\n";
    text << "  " << step++
         << ". private container: " << describeRegistration(*privateResolver_, key) << "\n";
    text << "  " << step << ". bridged resolver: ";
    if (classForm == nullptr) {
        text << "not asked (not a class type)\n";
    } else if (!objc_) {
        text << "not asked (no bridged resolver)\n";
    } else {
        text << "asked with key \"" << classForm->bridgedKey() << "\" when both containers miss\n";
    }
    text << "  other registrations of this type: public container: "
         << describeNames(publicResolver_->registeredNames(key.addr), key)
         << "; private container: "
         << describeNames(privateResolver_->registeredNames(key.addr), key) << "\n";
    return text.str();
}

ProxyResolver proxyResolver(std::shared_ptr<ZFResolver> objcResolver) {
    const std::shared_ptr<Container>& shared = Container::shared();
    return ProxyResolver(std::move(objcResolver), shared, shared->privateContainer());
}

}  // namespace kel
