// A separate program built against the installed library: it must find the headers and link.
#include <kel/KelFoundation.hpp>

#include <iostream>

int main() {
    kel::Error error = std::make_exception_ptr(kel::DomainError("consumer", 7));
    std::cout << "linked against KelFoundation: " << kel::errorDescription(error) << "\n";
    return 0;
}
