// Where tests find the project's files and the shared JSON corpora.
#pragma once

#include <string>

// The source tree (PXKIT_SOURCE_DIR, set for every test by pxkit_add_test).
std::string PXTestSourceDir();
// The benchmark corpora directory (PXKIT_BENCH_DATA); empty when not present.
std::string PXTestBenchDataDir();
// The whole contents of a file; throws std::runtime_error when it cannot be read.
std::string PXTestReadFile(const std::string& path);
