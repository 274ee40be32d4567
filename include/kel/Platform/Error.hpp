// kel::Error — the library's error value.
//
// An error is whatever a callable threw, carried unchanged as a std::exception_ptr: a rejected
// promise, a Result::failed and a thrown error all hold one. The helpers below let callers ask
// for an error's text and type without writing try/catch themselves.
//
// Thread rules: an Error is a value; copies may travel to any thread.
#pragma once

#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "kel/Export.hpp"

namespace kel {

using Error = std::exception_ptr;

// Wraps an exception object as an Error.
template <class E>
Error makeError(E&& error) {
    return std::make_exception_ptr(std::forward<E>(error));
}

// The error's text: what() of a std::exception, the text of a thrown string, or
// "unknown error" for anything else (and "no error" for a null Error).
KEL_EXPORT std::string errorDescription(const Error& error);

// True if the error holds an exception of type E (or derived from it).
template <class E>
bool errorIs(const Error& error) {
    if (!error) {
        return false;
    }
    try {
        std::rethrow_exception(error);
    } catch (const E&) {
        return true;
    } catch (...) {
        return false;
    }
}

// A copy of the held exception if it is an E (or derived from it, sliced to E).
template <class E>
std::optional<E> errorAs(const Error& error) {
    if (!error) {
        return std::nullopt;
    }
    try {
        std::rethrow_exception(error);
    } catch (const E& e) {
        return e;
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace kel
