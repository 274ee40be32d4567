// kel::Object — the root class of the library's class objects.
//
// Objects that other parts of the library treat as "any class instance" derive from it: the
// container's class forms of resolution and the sibling framework's objects. It is polymorphic
// and always owned through std::shared_ptr (make derived objects with std::make_shared), so the
// library can hold it weakly and cast it with std::dynamic_pointer_cast.
//
// Thread rules: the class itself has no state; derived classes state their own rules.
// Ownership: shared; objects are neither copyable nor movable, since their identity matters.
#pragma once

namespace kel {

class Object {
  public:
    virtual ~Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

  protected:
    Object() = default;
};

}  // namespace kel
