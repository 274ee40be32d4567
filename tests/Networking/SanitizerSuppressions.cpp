// ThreadSanitizer suppressions of this test binary. Debian's cpp-httplib is a prebuilt,
// uninstrumented library, so accesses its worker threads make inside it (under its own
// synchronisation, which the sanitizer cannot see) are reported as races. The server is test
// scaffolding; the library's own code stays fully checked.
extern "C" const char* __tsan_default_suppressions() {
    return "race:libcpp-httplib.so\n";
}
