# Every external dependency is a Debian package installed by scripts/setup-deps;
# docs/dependencies.md says why each one is here.
find_package(PkgConfig REQUIRED)
pkg_check_modules(GLIB REQUIRED IMPORTED_TARGET glib-2.0>=2.74 gobject-2.0 gio-2.0 gio-unix-2.0)
pkg_check_modules(ICU REQUIRED IMPORTED_TARGET icu-uc icu-i18n)
# The web request's transport: the multi interface with socket and timer
# callbacks, CURLOPT_PREREQFUNCTION (7.80) and the *_STR protocol lists (7.85).
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl>=7.85)
# The device registry (src/system): udev devices and sysfs through libgudev,
# and libudev's kernel uevent monitor where no udev daemon runs.
pkg_check_modules(GUDEV REQUIRED IMPORTED_TARGET gudev-1.0>=232 libudev)
find_package(Threads REQUIRED)

if(PXKIT_BUILD_TESTS OR PXKIT_BUILD_BENCH)
  # The loopback HTTP(S) server of the networking tests and benchmarks.
  pkg_check_modules(SOUP REQUIRED IMPORTED_TARGET libsoup-3.0)
endif()
if(PXKIT_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
  # Device testbeds (tests/support/PXUMockdevTestbed), run under umockdev-wrapper.
  pkg_check_modules(UMOCKDEV REQUIRED IMPORTED_TARGET umockdev-1.0)
  find_program(PXKIT_UMOCKDEV_WRAPPER umockdev-wrapper REQUIRED)
endif()
if(PXKIT_BUILD_BENCH)
  find_package(benchmark REQUIRED)
endif()
