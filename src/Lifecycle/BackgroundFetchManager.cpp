#include "kel/Lifecycle/BackgroundFetchManager.hpp"

#include <algorithm>
#include <utility>
#include <vector>

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/DispatchTime.hpp"
#include "kel/Platform/Log.hpp"
#include "kel/Promises/When.hpp"

namespace kel {

std::shared_ptr<Disposable> BackgroundFetchManager::add(
    const std::shared_ptr<BackgroundFetchWorker>& worker) {
    return workers_.add(worker);
}

Promise<BackgroundFetchResult> BackgroundFetchManager::performBackgroundFetch() {
    using Result = BackgroundFetchResult;
    if (workers_.empty()) {
        Log::write(LogLevel::default_,
                   "Background fetch manager will skip background fetch because there are no "
                   "workers");
        return Promise<Result>::fulfilled(Result::noData);
    }
    Log::write(LogLevel::default_,
               "Background fetch manager will perform background fetch with %lu workers",
               static_cast<unsigned long>(workers_.size()));

    return Promise<Result>([this](Promise<Result>::Fulfill fulfill,
                                  Promise<Result>::Reject reject) {
        // Read and written only on the main queue: by the time limit and the two outcomes of
        // the workers' join.
        auto finished = std::make_shared<bool>(false);
        DispatchQueue::main().asyncAfter(DispatchTime::now() + fetchTimeLimit_, [finished, reject] {
            if (*finished) {
                return;
            }
            Log::write(LogLevel::default_,
                       "Background fetch manager timed out performing background fetch");
            reject(Errors::timedOut);
            *finished = true;
        });

        std::vector<Promise<Result>> answers;
        workers_.forEachLive([&answers](BackgroundFetchWorker& worker, auto&) {
            answers.push_back(worker.performBackgroundFetch());
        });
        workers_.prune();

        const auto joined = when(zalgo(), answers);
        joined.then(DispatchQueue::main(), [finished, fulfill](const std::vector<Result>& results) {
            if (*finished) {
                return;
            }
            const Result result = std::ranges::find(results, Result::newData) != results.end()
                                      ? Result::newData
                                      : Result::noData;
            Log::write(LogLevel::default_,
                       "Background fetch manager successfully performed background fetch with "
                       "result: %{public}@",
                       description(result));
            fulfill(result);
            *finished = true;
        });
        joined.error(DispatchQueue::main(), [finished, reject](const Error& error) {
            if (*finished) {
                return;
            }
            Log::write(LogLevel::default_,
                       "Background fetch manager failed background fetch with error: %{public}@",
                       errorDescription(error));
            reject(error);
            *finished = true;
        });
    });
}

}  // namespace kel
