# The keyed unarchiver (and the archiver on whatever it accepts).
pxkit_add_fuzzer(keyed_unarchiver LIBS pxkit_platform)
# The archive code is compiled into the fuzzer itself, so that it carries the
# coverage instrumentation that guides the fuzzer (the library does not); the
# library's own copy is then never linked in.
target_sources(keyed_unarchiver_fuzzer PRIVATE ${PROJECT_SOURCE_DIR}/src/objects/PXKeyedArchiver.cpp)
target_compile_definitions(keyed_unarchiver_fuzzer PRIVATE PXKIT_BUILDING=1)
target_include_directories(keyed_unarchiver_fuzzer PRIVATE ${PROJECT_SOURCE_DIR}/src)
