// kel::DispatchGroup — counts outstanding work and tells when it has all left.
//
// enter() and leave() move a counter; notify(queue, work) submits work to the queue once the
// counter returns to zero (at once if it is zero now); wait(timeout) blocks until then. More
// leaves than enters is a fatal error. A copyable handle; copies share one group.
//
// Thread rules: every operation may be called from any thread.
#pragma once

#include <memory>

#include "kel/Export.hpp"
#include "kel/Platform/DispatchTime.hpp"
#include "kel/Platform/Task.hpp"

namespace kel {

class DispatchQueue;

namespace detail {
class GroupCore;
}

class KEL_EXPORT DispatchGroup {
  public:
    DispatchGroup();

    void enter() const;
    void leave() const;
    void notify(const DispatchQueue& queue, Task work) const;
    // Blocks until the group is empty or the deadline passes; true if the group emptied.
    bool wait(DispatchTime timeout = DispatchTime::distantFuture()) const;

    friend bool operator==(const DispatchGroup& a, const DispatchGroup& b) {
        return a.core_ == b.core_;
    }

  private:
    std::shared_ptr<detail::GroupCore> core_;
    friend class DispatchQueue;
};

}  // namespace kel
