# The networking tests run real servers on loopback: cpp-httplib for well-behaved ones.
pkg_check_modules(CPP_HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
target_link_libraries(${area_target} PRIVATE PkgConfig::CPP_HTTPLIB)
