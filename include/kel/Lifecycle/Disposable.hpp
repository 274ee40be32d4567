// kel::Disposable — the token a registration returns.
//
// The application-state, remote-notification and background-fetch managers and Observable
// return one for every registration. A registration is in force only while the token's weakly
// held keep-alive object lives; keepAlive() re-points it, and a null object ends the
// registration at once. Dropping the token changes nothing: the registry keeps its own
// reference to it.
//
// Thread rules: those of the registry that made the token (the managers are main-thread
// objects). Ownership: shared between the registry and the caller (std::shared_ptr).
#pragma once

#include <memory>

#include "kel/Export.hpp"

namespace kel {

class KEL_EXPORT Disposable {
  public:
    virtual ~Disposable() = default;

    // Holds `object` weakly as the registration's keep-alive object, replacing the previous
    // one; null ends the registration.
    virtual void keepAlive(std::shared_ptr<void> object) = 0;

  protected:
    Disposable() = default;
    Disposable(const Disposable&) = default;
    Disposable& operator=(const Disposable&) = default;
};

}  // namespace kel
