# The three ways a target enters the build: a library area, a test, a benchmark.

set(PXKIT_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wimplicit-fallthrough)
if(PXKIT_WERROR)
  list(APPEND PXKIT_WARNINGS -Werror)
endif()

if(PXKIT_SANITIZE)
  add_compile_options(-fsanitize=${PXKIT_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${PXKIT_SANITIZE})
  if(PXKIT_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=all)
  endif()
endif()

# pxkit_add_library(<area> SOURCES ... [DEPS ...])
# One static, position-independent library per area (pxkit_<area>); the shared
# libpxkit.so is made of all of them. Tests link the area they test.
function(pxkit_add_library area)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  set(target pxkit_${area})
  add_library(${target} STATIC ${ARG_SOURCES})
  target_compile_options(${target} PRIVATE ${PXKIT_WARNINGS})
  target_compile_definitions(${target} PRIVATE PXKIT_BUILDING=1)
  set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  target_include_directories(${target}
    PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    PRIVATE ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${target} PUBLIC ${ARG_DEPS})
  set_property(GLOBAL APPEND PROPERTY PXKIT_AREAS ${target})
endfunction()

# pxkit_link_areas_whole(<target> <libs>...)
# Links <libs> into <target>, every area library (pxkit_<area>) among them or
# reached through them whole: classes and rule functions registered by static
# initializers in a file that nothing else references must be present in every
# binary that links the area, as they are in libpxkit.so. Call it after every
# area has been added (tests and benchmarks are).
function(pxkit_link_areas_whole target)
  get_property(areas GLOBAL PROPERTY PXKIT_AREAS)
  # Every area reached from <libs>, directly or through another library.
  set(reached)
  set(queue ${ARGN})
  while(queue)
    list(POP_FRONT queue lib)
    string(REGEX REPLACE "^\\$<LINK_ONLY:(.*)>$" "\\1" lib "${lib}")
    if(lib IN_LIST reached OR NOT TARGET ${lib})
      continue()
    endif()
    list(APPEND reached ${lib})
    get_target_property(deps ${lib} INTERFACE_LINK_LIBRARIES)
    if(deps)
      list(APPEND queue ${deps})
    endif()
  endwhile()
  # An archive linked whole must appear once on the link line: the other
  # libraries go first, then every area reached, users first (as in
  # libpxkit.so), so that none has to be repeated after one of its users.
  set(others ${ARGN})
  set(used)
  list(REVERSE areas)
  foreach(area IN LISTS areas)
    if(area IN_LIST reached)
      list(REMOVE_ITEM others ${area})
      list(APPEND used ${area})
    endif()
  endforeach()
  target_link_libraries(${target} PRIVATE ${others} ${used})
  if(areas)
    string(REPLACE ";" "," areas_csv "${areas}")
    set_property(TARGET ${target} PROPERTY LINK_LIBRARY_OVERRIDE "WHOLE_ARCHIVE,${areas_csv}")
  endif()
endfunction()

# pxkit_add_test(<name> SOURCES ... [LIBS ...] [ENVIRONMENT ...] [WRAPPER cmd ...] [TIMEOUT s])
# A GoogleTest executable; each test case runs in its own process, so GLib's
# per-process singletons (buses, XDG dirs) start clean in every case.
function(pxkit_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;ENVIRONMENT;WRAPPER" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${PXKIT_WARNINGS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  pxkit_link_areas_whole(${name} ${ARG_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  # The environment and any wrapper (umockdev, unshare, ...) go into the
  # launcher, which runs both the test discovery and every test: a list of
  # variables does not survive gtest_discover_tests' PROPERTIES intact.
  find_program(PXKIT_ENV_PROGRAM env REQUIRED)
  set(launcher ${PXKIT_ENV_PROGRAM} "PXKIT_SOURCE_DIR=${PROJECT_SOURCE_DIR}"
      "PXKIT_BENCH_DATA=${PROJECT_SOURCE_DIR}/../shared/bench-data" ${ARG_ENVIRONMENT} ${ARG_WRAPPER})
  set_target_properties(${name} PROPERTIES CROSSCOMPILING_EMULATOR "${launcher}")
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60
    DISCOVERY_MODE PRE_TEST
    PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()

# pxkit_add_benchmark(<name> SOURCES ... [LIBS ...])
function(pxkit_add_benchmark name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${PXKIT_WARNINGS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/bench)
  pxkit_link_areas_whole(${name} ${ARG_LIBS} benchmark::benchmark)
  set_property(GLOBAL APPEND PROPERTY PXKIT_BENCHMARKS ${name})
endfunction()
