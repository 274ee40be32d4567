// kel::DefinitionConfigurationType and kel::DefinitionConfiguration<Input, Cast> — the block a
// definition runs on each instance it builds, once the outermost resolution has returned.
//
// The instance is cast to Cast before the block runs: Cast is the registered type itself, or,
// for a shared pointer to a class, a shared pointer to another class of the same object (tested
// with dynamic_pointer_cast). An instance that is not a Cast is a programming error and stops the
// process, naming both types.
//
// Thread rules: main-thread work. Ownership: owned by its definition.
#pragma once

#include "kel/Container/ResolverType.hpp"
#include "kel/Container/detail/AnyInstance.hpp"
#include "kel/Export.hpp"
#include "kel/Platform/FatalError.hpp"

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace kel {

class KEL_EXPORT DefinitionConfigurationType {
  public:
    virtual ~DefinitionConfigurationType() = default;
    virtual void configure(const detail::AnyInstance& input, const ResolverType& resolver) = 0;
};

template <class Input, class Cast>
class DefinitionConfiguration final : public DefinitionConfigurationType {
  public:
    using Block = std::function<void(Cast, const ResolverType&)>;

    explicit DefinitionConfiguration(Block block) : block_(std::move(block)) {}

    void configure(const detail::AnyInstance& input, const ResolverType& resolver) override {
        Input value = input.as<Input>();
        if constexpr (std::is_same_v<Input, Cast>) {
            block_(std::move(value), resolver);
        } else if constexpr (detail::IsSharedPointer<Input>::value &&
                             detail::IsSharedPointer<Cast>::value) {
            using Target = typename detail::IsSharedPointer<Cast>::Element;
            Cast cast;
            if constexpr (std::is_convertible_v<typename Input::element_type*, Target*>) {
                cast = value;
            } else if constexpr (std::is_polymorphic_v<typename Input::element_type>) {
                cast = std::dynamic_pointer_cast<Target>(value);
            }
            if (!cast) {
                failCast(value);
            }
            block_(std::move(cast), resolver);
        } else {
            failCast(value);
        }
    }

  private:
    [[noreturn]] static void failCast(const Input& value) {
        fatalError("provided input cannot be cast. inputType=" + detail::dynamicTypeName(value) +
                   ", castType=" + detail::staticTypeName<Cast>());
    }

    Block block_;
};

}  // namespace kel
