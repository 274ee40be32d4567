// kel::ObjectAssociation<T> — attaches a typed value to any kel::Object.
//
// Each ObjectAssociation is a distinct slot on every object: a value set through one is found
// only through that same association, never through another, even one of the same type. The
// key is a number unique in the process (not the association's address, which a later
// association could reuse).
//
// Policies (what the object holds):
//   - strong: the value itself (for T = std::shared_ptr<U>, a share of the pointee);
//   - weak: for T = std::shared_ptr<U> only, a std::weak_ptr; the value reads as absent once the
//     pointee is gone;
//   - copy: a copy of the value (for T = std::shared_ptr<U>, a new U copied from the pointee,
//     as U, so a derived pointee is sliced).
// Values stay until replaced, removed (set to std::nullopt) or the object is destroyed, which
// releases them.
//
// Thread rules: get and set may be called from any thread, concurrently, on any object; a read
// copies the value out under the object's association lock.
// Ownership: not copyable (its identity is its key); keep it by value, typically a static.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "kel/Platform/FatalError.hpp"
#include "kel/Platform/Object.hpp"

namespace kel {

enum class AssociationPolicy { strong, weak, copy };

template <class T>
class ObjectAssociation {
  public:
    explicit ObjectAssociation(AssociationPolicy policy)
        : policy_(policy), key_(Object::newAssociationKey()) {
        KEL_PRECONDITION(policy != AssociationPolicy::weak || isSharedPointer,
                         "ObjectAssociation: the weak policy needs a std::shared_ptr type");
    }
    ObjectAssociation(const ObjectAssociation&) = delete;
    ObjectAssociation& operator=(const ObjectAssociation&) = delete;

    AssociationPolicy policy() const noexcept { return policy_; }

    // The value `object` holds under this association, or std::nullopt.
    std::optional<T> get(const Object& object) const {
        Object::AssociatedValue stored = Object::associatedValue(object, key_);
        if constexpr (isSharedPointer) {
            using Pointee = typename T::element_type;
            std::shared_ptr<void> pointer =
                stored.strong != nullptr ? std::move(stored.strong) : stored.weak.lock();
            if (pointer == nullptr) {
                return std::nullopt;
            }
            return std::static_pointer_cast<Pointee>(std::move(pointer));
        } else {
            if (stored.strong == nullptr) {
                return std::nullopt;
            }
            return *std::static_pointer_cast<const T>(stored.strong);
        }
    }

    // Stores `value` on `object` under this association with its policy; std::nullopt (or a
    // null pointer) removes it.
    void set(const Object& object, std::optional<T> value) const {
        Object::setAssociatedValue(object, key_, erase(std::move(value)));
    }

  private:
    template <class U>
    struct IsSharedPointer : std::false_type {};
    template <class U>
    struct IsSharedPointer<std::shared_ptr<U>> : std::true_type {};
    static constexpr bool isSharedPointer = IsSharedPointer<T>::value;

    Object::AssociatedValue erase(std::optional<T> value) const {
        Object::AssociatedValue stored;
        if (!value) {
            return stored;
        }
        if constexpr (isSharedPointer) {
            using Mutable = std::remove_cv_t<typename T::element_type>;
            if (*value == nullptr) {
                return stored;
            }
            switch (policy_) {
                case AssociationPolicy::strong:
                    stored.strong = std::const_pointer_cast<Mutable>(std::move(*value));
                    break;
                case AssociationPolicy::weak:
                    stored.weak = std::const_pointer_cast<Mutable>(std::move(*value));
                    break;
                case AssociationPolicy::copy:
                    if constexpr (std::is_copy_constructible_v<Mutable>) {
                        stored.strong = std::make_shared<Mutable>(**value);
                    } else {
                        fatalError("ObjectAssociation: the copy policy needs a copyable type");
                    }
                    break;
            }
        } else {
            stored.strong = std::make_shared<T>(std::move(*value));
        }
        return stored;
    }

    const AssociationPolicy policy_;
    const std::uint64_t key_;
};

}  // namespace kel
