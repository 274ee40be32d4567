// kel::Object — the root class of the library's class objects.
//
// Objects that other parts of the library treat as "any class instance" derive from it: the
// container's class forms of resolution and the sibling framework's objects. It is polymorphic
// and always owned through std::shared_ptr (make derived objects with std::make_shared), so the
// library can hold it weakly and cast it with std::dynamic_pointer_cast.
//
// Every object has a slot for associated values (ObjectAssociation<T> reads and writes them):
// a table made on the first write, freed with the object, which releases what it holds then.
// Objects that never get an associated value pay one pointer.
//
// Thread rules: the slot is thread-safe (made once with a compare-and-swap, the table guarded by
// its own lock); derived classes state their own rules.
// Ownership: shared; objects are neither copyable nor movable, since their identity matters.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "kel/Export.hpp"

namespace kel {

template <class T>
class ObjectAssociation;

namespace detail {
class AssociationTable;
}  // namespace detail

class KEL_EXPORT Object {
  public:
    virtual ~Object();
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

  protected:
    Object() = default;

  private:
    // The access ObjectAssociation has to an object's slot. Out of line and exported: the
    // association template calls them from the user's code.
    template <class T>
    friend class ObjectAssociation;
    friend class detail::AssociationTable;

    // One associated value, type-erased: a strong reference, or a weak one, or nothing.
    struct AssociatedValue {
        std::shared_ptr<void> strong;
        std::weak_ptr<void> weak;
    };

    // A key that no other association has used in this process.
    static std::uint64_t newAssociationKey() noexcept;
    // The value stored under `key`, or an empty one.
    static AssociatedValue associatedValue(const Object& object, std::uint64_t key);
    // Stores `value` under `key`; an empty value (no strong and no weak reference) removes it.
    // The value replaced is released after the table's lock.
    static void setAssociatedValue(const Object& object, std::uint64_t key, AssociatedValue value);

    // Null until the first associated value is stored; set once, then owned by the object.
    mutable std::atomic<detail::AssociationTable*> associations_{nullptr};
};

}  // namespace kel
