# Every dependency comes from a Debian -dev package; nothing is fetched.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
find_package(ZLIB REQUIRED)
# Debian ships no CMake config for libcurl; CMake's own module finds it.
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
pkg_check_modules(ICU REQUIRED IMPORTED_TARGET icu-uc)

if(NOT EXISTS /usr/include/asio.hpp)
  message(FATAL_ERROR "standalone Asio is missing: run scripts/install-deps.sh")
endif()

# Public: what the installed headers need. Private: what only the sources use.
add_library(qvcore_public_deps INTERFACE)
target_link_libraries(qvcore_public_deps INTERFACE nlohmann_json::nlohmann_json Threads::Threads)

add_library(qvcore_private_deps INTERFACE)
# Asio chooses aligned_alloc or aligned operator new for its recycled blocks
# from a macro of the standard library's configuration, which is only set
# once some standard header was included. Files that included Asio first
# chose differently from the others, and a block allocated by one was freed
# by the other. Fixing the choice here makes every file agree, whatever it
# includes first.
target_compile_definitions(qvcore_private_deps INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED
                           ASIO_DISABLE_STD_ALIGNED_ALLOC)
target_link_libraries(qvcore_private_deps INTERFACE PkgConfig::PLIST PkgConfig::UUID ZLIB::ZLIB
                      OpenSSL::Crypto PkgConfig::ICU)
target_link_libraries(qvcore_private_deps INTERFACE CURL::libcurl)

# DNS-SD (browse and resolve for the log relay; qvcore-logtool also announces).
pkg_check_modules(AVAHI REQUIRED IMPORTED_TARGET avahi-client)
target_link_libraries(qvcore_private_deps INTERFACE PkgConfig::AVAHI)
