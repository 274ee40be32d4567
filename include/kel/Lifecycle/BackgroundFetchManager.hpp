// kel::BackgroundFetchManager — runs every registered background-fetch worker and answers with
// one result, within a hard time limit.
//
// performBackgroundFetch():
//   - with no registration at all, logs that it skips the fetch and answers noData at once (no
//     time limit is scheduled);
//   - otherwise logs the number of registrations (in force or not), schedules the time limit on
//     the main queue, calls every registration in force whose worker lives, in registration
//     order, prunes the registrations whose keep-alive object died, and joins the workers'
//     promises with `when`. On the main queue, the first of two outcomes decides: the joined
//     answers (newData if any worker answered newData, otherwise noData — also when no worker
//     ran; or, if any worker failed, the WhenError holding every worker's error in registration
//     order), or the time limit (Errors::timedOut). The other outcome changes nothing and logs
//     nothing.
// Every step is logged at the default level; the result and the error are public arguments.
// The time limit is 10 seconds unless the constructor is given another (tests shorten it). It
// is measured on the monotonic clock from the start of the fetch and is never cancelled.
//
// Thread rules: a main-thread object; no lock. The promise settles on the main thread, so the
// main thread must run RunLoop. Workers are called synchronously on the caller's thread.
// Ownership: holds workers weakly; owns its registration tokens. A pending fetch keeps what it
// needs (its promise, its finished flag) alive by itself, not the manager.
#pragma once

#include <memory>

#include "kel/Export.hpp"
#include "kel/Lifecycle/BackgroundFetchResult.hpp"
#include "kel/Lifecycle/BackgroundFetchWorker.hpp"
#include "kel/Lifecycle/Disposable.hpp"
#include "kel/Lifecycle/detail/WeakRegistry.hpp"
#include "kel/Platform/CaseError.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {

class KEL_EXPORT BackgroundFetchManager {
  public:
    enum class ErrorsCase : unsigned char { timedOut };

    // The rejection of a fetch that ran out of time: Errors::timedOut.
    class Errors : public CaseError<Errors, ErrorsCase> {
      public:
        using CaseError::CaseError;

        static const Errors timedOut;

        static constexpr const char* caseTexts[] = {"BackgroundFetchManager.Errors.timedOut"};
    };

    static constexpr double defaultFetchTimeLimit = 10.0;

    // `fetchTimeLimit` in seconds.
    explicit BackgroundFetchManager(double fetchTimeLimit = defaultFetchTimeLimit)
        : fetchTimeLimit_(fetchTimeLimit) {}
    BackgroundFetchManager(const BackgroundFetchManager&) = delete;
    BackgroundFetchManager& operator=(const BackgroundFetchManager&) = delete;

    std::shared_ptr<Disposable> add(const std::shared_ptr<BackgroundFetchWorker>& worker);
    Promise<BackgroundFetchResult> performBackgroundFetch();

    double fetchTimeLimit() const noexcept { return fetchTimeLimit_; }

  private:
    detail::WeakRegistry<BackgroundFetchWorker> workers_;
    double fetchTimeLimit_;
};

inline const BackgroundFetchManager::Errors BackgroundFetchManager::Errors::timedOut{
    ErrorsCase::timedOut};

}  // namespace kel
