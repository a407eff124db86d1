# Every library comes from a Debian package (scripts/install-deps.sh); README says why each is here.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(fmt REQUIRED)
find_package(CLI11 REQUIRED)
find_package(date REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
find_package(CURL REQUIRED)

pkg_check_modules(UTF8PROC REQUIRED IMPORTED_TARGET libutf8proc)
pkg_check_modules(PCRE2 REQUIRED IMPORTED_TARGET libpcre2-8)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
pkg_check_modules(QRENCODE REQUIRED IMPORTED_TARGET libqrencode)

# Standalone Asio is header-only.
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(ostrel_asio INTERFACE)
target_include_directories(ostrel_asio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
target_compile_definitions(ostrel_asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
target_link_libraries(ostrel_asio INTERFACE Threads::Threads)

if(OSTREL_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
if(OSTREL_BUILD_BENCH)
  find_package(benchmark REQUIRED)
  # libvterm is the reference the engine's throughput is compared against; benchmarks only.
  pkg_check_modules(VTERM REQUIRED IMPORTED_TARGET vterm)
endif()
