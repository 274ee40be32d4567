// kel::DeferredPromise<T> — a pending promise together with the callables that settle it, for
// code that settles a promise from somewhere other than a resolver body.
//
// The three public members are set by the constructor: `promise`, `resolve` (fulfils it; takes
// no argument for T = void) and `reject` (rejects it with an Error or any std::exception). There
// is no cancel: a deferred promise is only ever fulfilled or rejected through it. Copies share
// the same promise and callables.
//
// Thread rules: resolve and reject may be called from any thread, any number of times; only the
// first settlement counts. The members themselves are plain data: do not reassign them while
// another thread reads them.
#pragma once

#include <tuple>
#include <utility>

#include "kel/Promises/Promise.hpp"

namespace kel {

template <class T>
struct DeferredPromise {
    DeferredPromise() : DeferredPromise(Promise<T>::makeDeferred()) {}

    Promise<T> promise;
    typename Promise<T>::Fulfill resolve;
    typename Promise<T>::Reject reject;

  private:
    explicit DeferredPromise(
        std::tuple<Promise<T>, typename Promise<T>::Fulfill, typename Promise<T>::Reject> parts)
        : promise(std::move(std::get<0>(parts))),
          resolve(std::move(std::get<1>(parts))),
          reject(std::move(std::get<2>(parts))) {}
};

}  // namespace kel
