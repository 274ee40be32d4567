#include "kel/Platform/Error.hpp"

#include <stdexcept>

namespace kel {

std::string errorDescription(const Error& error) {
    if (!error) {
        return "no error";
    }
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (const std::string& text) {
        return text;
    } catch (const char* text) {
        return text != nullptr ? text : "unknown error";
    } catch (...) {
        return "unknown error";
    }
}

}  // namespace kel
