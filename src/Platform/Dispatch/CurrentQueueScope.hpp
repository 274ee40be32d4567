// kel::detail::CurrentQueueScope — marks the calling thread as running an item of a queue.
//
// Scopes nest (a sync inside an item, a queue running on its target): each thread keeps a stack
// of them, threaded through the scopes themselves on the thread's own stack. DispatchQueue's
// isCurrent and the deadlock check of a nested sync look a queue up in it.
//
// Thread rules: each thread sees only its own scopes.
#pragma once

namespace kel::detail {

class QueueCore;

class CurrentQueueScope {
  public:
    explicit CurrentQueueScope(const QueueCore* queue) noexcept : queue_(queue), previous_(top) {
        top = this;
    }
    ~CurrentQueueScope() { top = previous_; }
    CurrentQueueScope(const CurrentQueueScope&) = delete;
    CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

    static bool contains(const QueueCore* queue) noexcept {
        for (const CurrentQueueScope* scope = top; scope != nullptr; scope = scope->previous_) {
            if (scope->queue_ == queue) {
                return true;
            }
        }
        return false;
    }

  private:
    // The innermost scope of the calling thread. The library is linked, not loaded late, so
    // the initial-exec model may keep it in the static TLS block, read without a call to
    // __tls_get_addr: this is on the path of every sync.
    __attribute__((tls_model(
        "initial-exec"))) static inline thread_local const CurrentQueueScope* top = nullptr;

    const QueueCore* queue_;
    const CurrentQueueScope* previous_;
};

}  // namespace kel::detail
