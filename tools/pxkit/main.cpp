// pxkit: the kit's command-line tool.
//
//   pxkit demo [--keep] [--serve]  the kit at work in a sample application (Demo.h)
//   pxkit online [--watch]  whether the network is available (Online.h)
//   pxkit check RULE      whether a rule holds on this machine (Rules.h)
//   pxkit facts [PATH...] the facts rules can ask about (Rules.h)
//   pxkit state [--app ID]  what is stored for an application (State.h)
//   pxkit --help | --version
#include <pxkit/PXKit.h>

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "Demo.h"
#include "Online.h"
#include "Rules.h"
#include "State.h"

namespace {

constexpr const char* kUsage =
    "Usage: pxkit <command> [options]\n"
    "\n"
    "Commands:\n"
    "  demo [--keep] [--serve]\n"
    "                  show the kit at work: a sample application records usage\n"
    "                  from several threads, saves it, is launched again, restores\n"
    "                  it, cuts its daily papercut at midnight and submits it to a\n"
    "                  collector, in a throw-away home on a virtual clock (--keep\n"
    "                  leaves the home in place; --serve keeps the collector and\n"
    "                  its dashboard running until interrupted)\n"
    "  online [--watch]\n"
    "                  print whether the network is available (exit status 0 when\n"
    "                  it is, 1 when not); with --watch, also each change, until\n"
    "                  interrupted\n"
    "  check [--explain] [--root DIR] [--] RULE\n"
    "                  whether RULE holds on this machine: prints YES (exit 0) or\n"
    "                  NO (exit 1); a rule that cannot be evaluated exits 2.\n"
    "                  --explain shows the rule with its ${...} calls replaced\n"
    "                  and their values\n"
    "  facts [--json] [--root DIR] [KEYPATH|${CALL} ...]\n"
    "                  the value of each key path or call (default: the OS,\n"
    "                  kernel and computer); --root reads another system tree\n"
    "  state [--app ID]\n"
    "                  show what is stored for an application (default: the\n"
    "                  demo's): its metrics, the papercuts waiting and the exact\n"
    "                  JSON body its next submission will post; changes nothing\n"
    "\n"
    "Options:\n"
    "  --help          show this help\n"
    "  --version       show the kit's version\n";

// Exit status for a command line that cannot be understood.
constexpr int kUsageError = 2;

int usageError(const std::string& message) {
  std::fprintf(stderr, "pxkit: %s\nTry 'pxkit --help'.\n", message.c_str());
  return kUsageError;
}

int demo(const std::vector<std::string_view>& args) {
  bool keep = false, serve = false;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--keep") {
      keep = true;
    } else if (args[i] == "--serve") {
      serve = true;
    } else if (args[i] == "--second-launch" && i + 1 < args.size()) {
      // Internal: the demo's first launch starts its second launch this way.
      return PXKitDemo::runSecondLaunch(std::string(args[i + 1]));
    } else {
      return usageError("demo: unknown option '" + std::string(args[i]) + "'");
    }
  }
  return PXKitDemo::run(keep, serve);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs(kUsage, stderr);
    return kUsageError;
  }
  const std::string_view command = argv[1];
  const std::vector<std::string_view> args(argv + 2, argv + argc);
  if (command == "--help" || command == "-h" || command == "help") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (command == "--version") {
    std::printf("pxkit %s\n", PXKitVersionString());
    return 0;
  }
  if (command == "demo") return demo(args);
  if (command == "online") return PXKitOnline::run(args);
  if (command == "check") return PXKitRules::check(args);
  if (command == "facts") return PXKitRules::facts(args);
  if (command == "state") return PXKitState::run(args);
  return usageError("unknown command '" + std::string(command) + "'");
}
