#include "kel/Container/ProxyContainer.hpp"

namespace kel {

ProxyContainer::ProxyContainer(const std::shared_ptr<ZFContainerRegistry>& registry,
                               std::shared_ptr<Container> publicContainer)
    : ProxyContainer(registry, publicContainer, publicContainer->privateContainer()) {}

ProxyContainer::ProxyContainer(const std::shared_ptr<ZFContainerRegistry>& registry,
                               const std::shared_ptr<Container>& publicContainer,
                               const std::shared_ptr<Container>& privateContainer)
    : public_(std::make_shared<RegistrationContainer>(publicContainer, privateContainer,
                                                      registry->callback())),
      private_(std::make_shared<RegistrationContainer>(privateContainer, privateContainer,
                                                       registry->callback())),
      objc(std::make_shared<ProxyRegistrationContainer>(registry->publicContainer(),
                                                        publicContainer, privateContainer)),
      callback(std::make_shared<CallbackRegistration>(publicContainer->callbackStore(),
                                                      registry->callback(), publicContainer,
                                                      privateContainer)) {}

}  // namespace kel
