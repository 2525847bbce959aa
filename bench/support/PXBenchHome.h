// A fresh temporary home for a benchmark run: HOME and the XDG directories in
// a new temporary tree, and a fixed machine ID, so that the trackers' user
// defaults and by-host preferences land there. Made before the kit's first
// GLib call; removed when the object goes.
#pragma once

#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

class PXBenchHome {
 public:
  PXBenchHome() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pxkit-bench-XXXXXX").string();
    if (!mkdtemp(pattern.data())) std::abort();
    root_ = pattern;
    for (const char* name :
         {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME"}) {
      const std::string dir = root_ + "/" + name;
      std::filesystem::create_directories(dir);
      setenv(name, dir.c_str(), 1);
    }
    const std::string machineID = root_ + "/machine-id";
    if (FILE* f = std::fopen(machineID.c_str(), "w")) {
      std::fputs("3b8f5a1c9d2e4f6a7b0c1d2e3f4a5b6c\n", f);
      std::fclose(f);
    }
    setenv("PXKIT_MACHINE_ID_PATH", machineID.c_str(), 1);
  }
  ~PXBenchHome() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

 private:
  std::string root_;
};
