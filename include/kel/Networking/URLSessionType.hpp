// kel::URLSessionType — the one session operation the network operation needs, so that an
// application or a test can put its own session in place of URLSession.
//
// downloadData(request, completion) starts loading request and calls completion exactly once
// with the body (none when the response had no body bytes), the response, the task's timing
// metrics (none when the session keeps none) and the error (null on success). It returns what
// cancels the load, or null.
//
// Thread rules: implementations may be called from any thread; completion runs on a thread of
// the implementation's choosing.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "kel/Export.hpp"
#include "kel/Platform/Cancellable.hpp"
#include "kel/Platform/Data.hpp"
#include "kel/Platform/Error.hpp"
#include "kel/Platform/URLRequest.hpp"
#include "kel/Platform/URLResponse.hpp"
#include "kel/Platform/URLSessionTaskMetrics.hpp"

namespace kel {

class KEL_EXPORT URLSessionType {
  public:
    using DownloadCompletion =
        std::function<void(std::optional<Data> data, std::shared_ptr<const URLResponse> response,
                           std::shared_ptr<const URLSessionTaskMetrics> metrics, Error error)>;

    virtual ~URLSessionType() = default;

    virtual std::shared_ptr<Cancellable> downloadData(const URLRequest& request,
                                                      DownloadCompletion completion) = 0;
};

}  // namespace kel
