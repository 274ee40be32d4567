#include "kel/Container/Callbacks.hpp"

#include "kel/Container/Container.hpp"

namespace kel {

void CallbackStore::add(std::uintptr_t type, const CallbackScope& scope,
                        std::shared_ptr<CallbackDefinitionType> definition) {
    switch (scope.kind()) {
        case CallbackScope::Kind::name:
            store_[Key{type, scope.nameList().front()}].push_back(std::move(definition));
            break;
        case CallbackScope::Kind::names:
            for (const std::string& name : scope.nameList()) {
                store_[Key{type, name}].push_back(definition);
            }
            break;
        case CallbackScope::Kind::any:
            store_[Key{type, std::nullopt}].push_back(std::move(definition));
            break;
    }
}

CallbackStore::List CallbackStore::lookup(std::uintptr_t type,
                                          const std::optional<std::string>& name) const {
    List found;
    if (store_.empty()) {
        return found;
    }
    if (auto unnamed = store_.find(Key{type, std::nullopt}); unnamed != store_.end()) {
        found = unnamed->second;
    }
    if (name) {
        if (auto named = store_.find(Key{type, name}); named != store_.end()) {
            found.insert(found.end(), named->second.begin(), named->second.end());
        }
    }
    return found;
}

void CallbackInstanceBridgedDefinition::registerInstance(
    const std::shared_ptr<CallbackStore>& store, const detail::AnyInstance&,
    const std::shared_ptr<Object>& object, const std::shared_ptr<Container>& privateContainer) {
    std::shared_ptr<Container> publicContainer = publicContainer_.lock();
    if (!object || !callbackRegistration_ || !publicContainer) {
        return;
    }
    CallbackRegistration registration(store, callbackRegistration_, std::move(publicContainer),
                                      privateContainer);
    callbackRegistration_->registerCallbacksForInstance(object, registration);
}

}  // namespace kel
