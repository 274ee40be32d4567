// A simulated application's start-up wiring: one public and one private module, a service that
// only the sibling side knows, an audit log told about every greeter built, and a mailbox and a
// postman linked to each other once both exist.
#include "ContainerDemo.hpp"

#include <kel/Container/Container.hpp>
#include <kel/Container/InMemoryZorbFoundation.hpp>
#include <kel/Container/ProxyContainer.hpp>
#include <kel/Container/ProxyResolver.hpp>

#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Clock : kel::Object {
    std::string now() const { return "09:00"; }
};
struct LegacyFormatter : kel::Object {
    std::string format(const std::string& text) const { return "*** " + text + " ***"; }
};
struct Greeter : kel::Object {
    Greeter(std::shared_ptr<Clock> clock, std::shared_ptr<LegacyFormatter> formatter)
        : clock(std::move(clock)), formatter(std::move(formatter)) {}
    std::string greet(const std::string& name) const {
        return formatter->format("good morning " + name + ", it is " + clock->now());
    }
    std::shared_ptr<Clock> clock;
    std::shared_ptr<LegacyFormatter> formatter;
};
struct AuditLog : kel::Object {
    std::vector<std::string> entries;
};
struct Postman;
struct Mailbox : kel::Object {
    std::weak_ptr<Postman> postman;
};
struct Postman : kel::Object {
    std::shared_ptr<Mailbox> mailbox;
};

using kel::ResolverType;

// The application's own module: what other modules may resolve.
void registerPublicModule(kel::ProxyContainer& module) {
    module.public_->register_<std::shared_ptr<Greeter>>([](const ResolverType& r) {
        return std::make_shared<Greeter>(*r.resolve<std::shared_ptr<Clock>>(),
                                         *r.resolve<std::shared_ptr<LegacyFormatter>>());
    });
    module.public_
        ->register_<std::shared_ptr<AuditLog>>(
            [](const ResolverType&) { return std::make_shared<AuditLog>(); })
        .inScope(kel::Scope::singleton)
        .whenResolving<std::shared_ptr<Greeter>>(
            kel::CallbackScope::any(),
            [](std::shared_ptr<AuditLog> log, std::shared_ptr<Greeter>, const ResolverType&) {
                log->entries.push_back("a greeter was built");
            });
    module.public_
        ->register_<std::shared_ptr<Mailbox>>(
            [](const ResolverType&) { return std::make_shared<Mailbox>(); })
        .thenConfigure([](std::shared_ptr<Mailbox> mailbox, const ResolverType& r) {
            mailbox->postman = *r.resolve<std::shared_ptr<Postman>>();
        });
    module.public_
        ->register_<std::shared_ptr<Postman>>(
            [](const ResolverType&) { return std::make_shared<Postman>(); })
        .thenConfigure([](std::shared_ptr<Postman> postman, const ResolverType& r) {
            postman->mailbox = *r.resolve<std::shared_ptr<Mailbox>>();
        });
}

// Implementation details of the module: seen only by its own factories.
void registerPrivateModule(kel::ProxyContainer& module) {
    module.private_
        ->register_<std::shared_ptr<Clock>>(
            [](const ResolverType&) { return std::make_shared<Clock>(); })
        .inScope(kel::Scope::singleton);
    module.objc->register_<std::shared_ptr<LegacyFormatter>>(
        [](const ResolverType&) { return std::make_shared<LegacyFormatter>(); });
}

}  // namespace

void runContainerDemo() {
    std::cout << "\n== Dependency injection\n";
    auto sibling = kel::ZFInMemoryRegistry::make();
    auto container = kel::Container::make();
    kel::ProxyContainer module(sibling, container);
    registerPublicModule(module);
    registerPrivateModule(module);

    kel::ProxyResolver resolver(sibling, container, module.private_->publicContainer());
    auto audit = *resolver.resolve<std::shared_ptr<AuditLog>>();
    auto greeter = *resolver.resolve<std::shared_ptr<Greeter>>();
    std::cout << "  greeter (clock from the private module, formatter from the sibling side): "
              << greeter->greet("alice") << "\n";
    std::cout << "  audit log after resolving: " << audit->entries.size() << " entry, \""
              << audit->entries.front() << "\"\n";

    auto postman = *resolver.resolve<std::shared_ptr<Postman>>();
    std::cout << "  postman and mailbox linked by their configuration: " << std::boolalpha
              << (postman->mailbox->postman.lock() == postman) << "\n";

    std::cout << "  why is there no \"night\" greeter?\n";
    std::istringstream explanation(resolver.explain<std::shared_ptr<Greeter>>("night"));
    for (std::string line; std::getline(explanation, line);) {
        std::cout << "    " << line << "\n";
    }
}
