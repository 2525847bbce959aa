// A second process for the user-defaults tests: writes an application's
// preferences the way another instance or a settings tool would, under the
// XDG_CONFIG_HOME of its environment. Exit status 0 when every write reached the file.
//   set <app id> <key> [0|1]           the key to that bool, or removed without a value
//   setmany <app id> <prefix> <count>  <prefix>0 ... <prefix>count-1, synchronising after each
#include <pxkit/platform/PXUserDefaults.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
  PXUserDefaults* defaults = argc >= 4 ? PXUserDefaults::userDefaultsForApplication(argv[2]) : nullptr;
  const std::string command = argc >= 2 ? argv[1] : "";
  if (defaults && command == "set") {
    if (argc >= 5) {
      defaults->setBool(std::strcmp(argv[4], "1") == 0, argv[3]);
    } else {
      defaults->removeObjectForKey(argv[3]);
    }
    return defaults->synchronize() ? 0 : 1;
  }
  if (defaults && command == "setmany" && argc >= 5) {
    for (int i = 0; i < std::atoi(argv[4]); ++i) {
      defaults->setInteger(i, std::string(argv[3]) + std::to_string(i));
      if (!defaults->synchronize()) return 1;
    }
    return 0;
  }
  std::fprintf(stderr, "usage: pxkit_test_prefs_child set|setmany <app id> ...\n");
  return 2;
}
