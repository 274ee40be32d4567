// kel::URLRequestProcessor — rewrites a request before it is sent (adds authorisation, signs,
// changes the host).
//
// process(request) returns the request to use instead; the input is not changed and the call
// cannot fail. The network operation runs its processors in list order on every attempt.
//
// Thread rules: process may be called from any thread (a retry runs on a scheduler thread).
// Ownership: shared by the operations that list it.
#pragma once

#include "kel/Export.hpp"
#include "kel/Platform/URLRequest.hpp"

namespace kel {

class KEL_EXPORT URLRequestProcessor {
  public:
    virtual ~URLRequestProcessor() = default;
    virtual URLRequest process(const URLRequest& request) const = 0;
};

}  // namespace kel
