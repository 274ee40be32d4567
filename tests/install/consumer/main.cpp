// A separate program built against the installed library: it must find the headers and link,
// and what crosses the library boundary (error types, promise state, interned type names)
// must behave as one program.
#include <kel/KelFoundation.hpp>

#include <iostream>

int main() {
    kel::Error error = std::make_exception_ptr(kel::DomainError("consumer", 7));
    std::cout << "linked against KelFoundation: " << kel::errorDescription(error) << "\n";

    // An error made inside the library is recognised by its type here: its typeinfo is exported.
    kel::Error writeError =
        kel::UserDefaults::atPath("/dev/null/consumer/defaults.json")->set("key", 1);
    if (!kel::errorAs<kel::DomainError>(writeError)) {
        std::cerr << "a library error was not caught by its type\n";
        return 1;
    }

    // Promise seals come from the library's allocator; settlement state is shared with it.
    int doubled = 0;
    kel::Promise<int>::fulfilled(21).then(kel::zalgo(), [&](int value) { doubled = 2 * value; });
    if (doubled != 42) {
        std::cerr << "a settled promise did not run its continuation\n";
        return 1;
    }

    // Type identities are interned by the library, so a key formed here matches one formed there.
    if (kel::toKey<int>() != kel::toKey<int>() || kel::toKey<int>().description() != "int") {
        std::cerr << "type keys are not interned\n";
        return 1;
    }
    return 0;
}
