#include "support/PXTestPaths.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

std::string PXTestSourceDir() {
  const char* dir = std::getenv("PXKIT_SOURCE_DIR");
  return dir ? dir : ".";
}

std::string PXTestBenchDataDir() {
  const char* dir = std::getenv("PXKIT_BENCH_DATA");
  if (!dir || !std::filesystem::is_directory(dir)) return {};
  return dir;
}

std::string PXTestReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}
