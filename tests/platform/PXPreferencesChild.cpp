// A second process for the user-defaults tests: writes an application's
// preferences the way another instance, a settings tool or the CLI would.
//
//   pxkit_test_prefs_child set <app id> <key> [0|1]
//       sets the key to that bool, or removes it when no value is given
//   pxkit_test_prefs_child setmany <app id> <key prefix> <count>
//       sets <prefix>0 ... <prefix>count-1, synchronising after each one
//   pxkit_test_prefs_child loop <app id> <payload bytes>
//       forever: Counter + 1, a Payload made from the counter, synchronise,
//       then print the counter on a line of its own (the crash test kills it)
//
// XDG_CONFIG_HOME comes from the environment.
// Exit status 0 when every write reached the file.
#include <pxkit/platform/PXUserDefaults.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// The payload that goes with a counter value: long enough that a write takes
// a while, and checkable from the counter alone.
std::string payloadFor(long long counter, size_t bytes) {
  std::string unit = std::to_string(counter) + ";";
  std::string payload;
  while (payload.size() < bytes) payload += unit;
  return payload;
}

int usage() {
  std::fprintf(stderr, "usage: pxkit_test_prefs_child set|setmany|loop <app id> ...\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return usage();
  std::string command = argv[1];
  PXUserDefaults* defaults = PXUserDefaults::userDefaultsForApplication(argv[2]);
  if (!defaults) return usage();

  if (command == "set" && argc >= 4) {
    if (argc >= 5) {
      defaults->setBool(std::strcmp(argv[4], "1") == 0, argv[3]);
    } else {
      defaults->removeObjectForKey(argv[3]);
    }
    return defaults->synchronize() ? 0 : 1;
  }
  if (command == "setmany" && argc >= 5) {
    int count = std::atoi(argv[4]);
    for (int i = 0; i < count; ++i) {
      defaults->setInteger(i, std::string(argv[3]) + std::to_string(i));
      if (!defaults->synchronize()) return 1;
    }
    return 0;
  }
  if (command == "loop" && argc >= 4) {
    auto bytes = static_cast<size_t>(std::atoll(argv[3]));
    long long counter = defaults->integerForKey("Counter");
    for (;;) {
      ++counter;
      defaults->setInteger(counter, "Counter");
      defaults->setObject(payloadFor(counter, bytes), "Payload");
      if (!defaults->synchronize()) return 1;
      std::printf("%lld\n", counter);
      std::fflush(stdout);
    }
  }
  return usage();
}
