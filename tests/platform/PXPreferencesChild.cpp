// A second process for the preferences tests: writes an application's
// preferences the way another instance, a settings tool or the CLI would.
//
//   pxkit_test_prefs_child set <app id> <key> int|string|bool|remove [value]
//   pxkit_test_prefs_child setmany <app id> <key prefix> <count>
//       sets <prefix>0 ... <prefix>count-1, synchronising after each one
//   pxkit_test_prefs_child loop <app id> <payload bytes>
//       forever: Counter + 1, a Payload made from the counter, synchronise,
//       then print the counter on a line of its own (the crash test kills it)
//   pxkit_test_prefs_child byhost-set <app id> <key> <string>
//
// XDG_CONFIG_HOME and PXKIT_MACHINE_ID_PATH come from the environment.
// Exit status 0 when every write reached the file.
#include <pxkit/platform/PXPreferences.h>
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
  std::fprintf(stderr, "usage: pxkit_test_prefs_child set|setmany|loop|byhost-set <app id> ...\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return usage();
  std::string command = argv[1];
  PXUserDefaults* defaults = PXUserDefaults::userDefaultsForApplication(argv[2]);
  if (!defaults) return usage();

  if (command == "set" && argc >= 5) {
    std::string kind = argv[4];
    const char* value = argc >= 6 ? argv[5] : "";
    if (kind == "int") {
      defaults->setInteger(std::atoll(value), argv[3]);
    } else if (kind == "string") {
      defaults->setObject(value, argv[3]);
    } else if (kind == "bool") {
      defaults->setBool(std::strcmp(value, "1") == 0, argv[3]);
    } else if (kind == "remove") {
      defaults->removeObjectForKey(argv[3]);
    } else {
      return usage();
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
  if (command == "byhost-set" && argc >= 5) {
    if (!PXPreferences::setValue(argv[3], argv[4], argv[2], kPXPreferencesCurrentUser,
                                 kPXPreferencesCurrentHost))
      return 1;
    return PXPreferences::synchronize(argv[2], kPXPreferencesCurrentUser, kPXPreferencesCurrentHost) ? 0 : 1;
  }
  return usage();
}
