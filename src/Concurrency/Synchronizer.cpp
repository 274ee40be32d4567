#include "kel/Concurrency/Synchronizer.hpp"

#include <optional>
#include <utility>

namespace kel {

Promise<void> Synchronizer::synchronize(const DispatchQueue& queue, Job closure) {
    group_.enter();
    std::optional<Promise<void>> job;
    try {
        job.emplace(closure());
    } catch (...) {
        group_.leave();
        throw;
    }
    return Promise<void>([&](auto fulfill, auto) {
        // Both handlers run on zalgo, in registration order, as soon as the job settles. The
        // notification is arranged while the job is still inside the group, so it fires only
        // once this job and every job overlapping it have left.
        job->then(zalgo(), [group = group_, queue, fulfill = std::move(fulfill)] {
            group.notify(queue, [fulfill] { fulfill(); });
        });
        job->always(zalgo(), [group = group_] { group.leave(); });
    });
}

}  // namespace kel
