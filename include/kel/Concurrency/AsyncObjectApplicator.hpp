// kel::AsyncObjectApplicator<Object, Value> — applies the value of a promise to an object, but
// only if no newer promise has been applied to the same object in the meantime.
//
// apply(object, promise, closure) gives the object a fresh token (the text of a new UUID),
// replacing any earlier one. When the promise is fulfilled, on the main queue, closure(object,
// value) is called if the applicator still exists, the object still exists and its token is
// still this one. Otherwise the application is dropped: its chained promise is rejected with
// AsyncObjectApplicator::Errors::cancelled and nothing else reports it. A rejected or cancelled
// promise applies nothing. So when image loads for a reused view overlap, only the most recently
// requested image reaches the view.
//
// The closure is called as closure(Object&, const Value&) or, if it takes the object's
// shared_ptr instead, closure(std::shared_ptr<Object>, const Value&).
//
// Thread rules: apply may be called from any thread; closures run on the main thread (its
// RunLoop must run). The token table is guarded by a lock.
// Ownership: objects are held weakly, by the table and by pending applications; pending
// applications hold the applicator's state weakly, so destroying the applicator drops them.
#pragma once

#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>

#include "kel/Concurrency/MutexLock.hpp"
#include "kel/Export.hpp"
#include "kel/Platform/CaseError.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/UUID.hpp"
#include "kel/Platform/WeakMapTable.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {

// The errors of every AsyncObjectApplicator, whatever its template arguments; reached as
// AsyncObjectApplicator<Object, Value>::Errors.
enum class AsyncObjectApplicatorErrorsCase : unsigned char { cancelled };

class KEL_EXPORT AsyncObjectApplicatorErrors
    : public CaseError<AsyncObjectApplicatorErrors, AsyncObjectApplicatorErrorsCase> {
  public:
    using CaseError::CaseError;

    static const AsyncObjectApplicatorErrors cancelled;

    static constexpr const char* caseTexts[] = {"AsyncObjectApplicator.Errors.cancelled"};
};

inline const AsyncObjectApplicatorErrors AsyncObjectApplicatorErrors::cancelled{Case::cancelled};

template <class Object, class Value>
class AsyncObjectApplicator {
  public:
    using Errors = AsyncObjectApplicatorErrors;

    AsyncObjectApplicator() : state_(std::make_shared<State>()) {}
    AsyncObjectApplicator(const AsyncObjectApplicator&) = delete;
    AsyncObjectApplicator& operator=(const AsyncObjectApplicator&) = delete;

    template <class Closure>
    void apply(const std::shared_ptr<Object>& object, const Promise<Value>& promise,
               Closure&& closure) {
        std::string token = UUID().uuidString();
        {
            std::lock_guard guard(state_->lock);
            state_->hashMap.set(object, token);
        }
        promise.then(DispatchQueue::main(), [state = std::weak_ptr<State>(state_),
                                             object = std::weak_ptr<Object>(object),
                                             token = std::move(token),
                                             closure = std::forward<Closure>(closure)](
                                                const Value& value) mutable {
            std::shared_ptr<State> strongState = state.lock();
            std::shared_ptr<Object> strongObject = object.lock();
            if (!strongState || !strongObject || !strongState->holds(strongObject, token)) {
                throw Errors::cancelled;
            }
            if constexpr (std::is_invocable_v<Closure&, std::shared_ptr<Object>, const Value&>) {
                closure(std::move(strongObject), value);
            } else {
                closure(*strongObject, value);
            }
        });
    }

  private:
    struct State {
        // True if token is the object's current token.
        bool holds(const std::shared_ptr<Object>& object, const std::string& token) {
            std::lock_guard guard(lock);
            const std::string* current = hashMap.find(object);
            return current != nullptr && *current == token;
        }

        MutexLock lock;
        WeakMapTable<Object, std::string> hashMap;  // guarded by lock
    };

    std::shared_ptr<State> state_;  // shared with pending applications, which hold it weakly
};

}  // namespace kel
