// kel::BackgroundFetchWorker — the interface of objects that take part in a background fetch run
// by a BackgroundFetchManager.
//
// Thread rules: performBackgroundFetch is called synchronously on the thread that starts the
// fetch (the main thread); the promise may settle on any thread.
// Ownership: workers are owned by the application (std::shared_ptr) and held weakly by the
// manager.
#pragma once

#include "kel/Export.hpp"
#include "kel/Lifecycle/BackgroundFetchResult.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {

class KEL_EXPORT BackgroundFetchWorker {
  public:
    virtual ~BackgroundFetchWorker() = default;

    virtual Promise<BackgroundFetchResult> performBackgroundFetch() = 0;

  protected:
    BackgroundFetchWorker() = default;
    BackgroundFetchWorker(const BackgroundFetchWorker&) = default;
    BackgroundFetchWorker& operator=(const BackgroundFetchWorker&) = default;
};

}  // namespace kel
