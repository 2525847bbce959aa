// Where tests find the project's files and the shared JSON corpora.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

// The source tree (PXKIT_SOURCE_DIR, set for every test by pxkit_add_test).
inline std::string PXTestSourceDir() {
  const char* dir = std::getenv("PXKIT_SOURCE_DIR");
  return dir ? dir : ".";
}

// The benchmark corpora directory (PXKIT_BENCH_DATA); empty when not present.
inline std::string PXTestBenchDataDir() {
  const char* dir = std::getenv("PXKIT_BENCH_DATA");
  return dir && std::filesystem::is_directory(dir) ? dir : "";
}

// The whole contents of a file; throws std::runtime_error when it cannot be read.
inline std::string PXTestReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}
