// The sysctl provider: the pure parsers on sample text, and the provider
// against fixture system trees (tests/rules/fixtures/sysctl-*).
#include <gtest/gtest.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/rules/PXRuleCheckerSysCtlFunction.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "rules/internal/SysCtlSources.h"
#include "support/PXTestPaths.h"

namespace {

using pxkit::rules::CpuPlace;

std::string fixture(const char* name) {
  return PXTestSourceDir() + "/tests/rules/fixtures/" + name;
}

constexpr const char* kArm64Cpuinfo =
    "processor\t: 0\nBogoMIPS\t: 108.00\nCPU implementer\t: 0x41\nCPU architecture: 8\n"
    "CPU part\t: 0xd0c\n\nprocessor\t: 1\nCPU implementer\t: 0x61\nCPU part\t: 0x023\n\n";

TEST(PXRuleCheckerSysCtlFunction, FindsTheBrandInCpuinfo) {
  struct Row {
    const char* text;
    std::optional<std::string> brand;
  };
  const Row rows[] = {
      {"processor\t: 0\nvendor_id\t: AuthenticAMD\nmodel name\t: AMD EPYC 7B13\n\nprocessor\t: 1\n"
       "model name\t: Other\n",
       "AMD EPYC 7B13"},
      {"model name\t:   padded name  \r\n", "padded name"},
      {"processor\t: 0\nmodel name\t: ARMv7 Processor rev 4 (v7l)\nCPU implementer\t: 0x41\nCPU part\t: "
       "0xd08\n",
       "ARMv7 Processor rev 4 (v7l)"},     // a model name wins over the part
      {kArm64Cpuinfo, "ARM Neoverse-N1"},  // the first processor's part
      {"CPU implementer\t: 0x61\nCPU part\t: 0x022\n", "Apple Icestorm-M1"},
      {"CPU implementer\t: 0x41\nCPU part\t: 0xfff\n", std::nullopt},  // an unknown part
      {"CPU implementer\t: 0x99\nCPU part\t: 0xd08\n", std::nullopt},  // an unknown maker
      {"CPU implementer\t: zz\nCPU part\t: 0xd08\n", std::nullopt},
      {"CPU part\t: 0xd08\n", std::nullopt},
      {"", std::nullopt},
      {"model name without colon\n", std::nullopt},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(pxkit::rules::cpuBrandFromCpuinfo(row.text), row.brand);
  }
}

TEST(PXRuleCheckerSysCtlFunction, ParsesCpuListsAndCountsCores) {
  struct ListRow {
    const char* text;
    std::optional<std::vector<int>> cpus;
  };
  const ListRow lists[] = {
      {"0-3\n", std::vector<int>{0, 1, 2, 3}},
      {"0-1,8,10-11", std::vector<int>{0, 1, 8, 10, 11}},
      {"3,1-2,2", std::vector<int>{1, 2, 3}},
      {"", std::vector<int>{}},
      {"3-1", std::nullopt},
      {"0-", std::nullopt},
      {"a", std::nullopt},
      {"0-99999999", std::nullopt},
  };
  for (const ListRow& row : lists) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(pxkit::rules::parseCpuList(row.text), row.cpus);
  }

  struct CoreRow {
    std::vector<CpuPlace> places;
    int64_t cores;
  };
  const CoreRow cores[] = {
      {{{"0", "0,2"}, {"0", "1,3"}, {"0", "0,2"}, {"0", "1,3"}}, 2},  // SMT: two threads a core
      {{{"0", "0"}, {"1", "0"}}, 2},                                  // the same core id in two packages
      {{}, 0},
  };
  for (const CoreRow& row : cores) EXPECT_EQ(pxkit::rules::countPhysicalCores(row.places), row.cores);

  // cpuinfo places: with "physical id"/"core id" (SMT), and without (each its own core).
  const char* smt =
      "processor : 0\nphysical id : 0\ncore id : 0\n\nprocessor : 1\nphysical id : 0\ncore id : 0\n\n"
      "processor : 2\nphysical id : 0\ncore id : 1\n\nprocessor : 3\nphysical id : 0\ncore id : 1\n";
  EXPECT_EQ(pxkit::rules::countPhysicalCores(pxkit::rules::cpuPlacesFromCpuinfo(smt)), 2);
  EXPECT_EQ(pxkit::rules::countPhysicalCores(pxkit::rules::cpuPlacesFromCpuinfo(kArm64Cpuinfo)), 2);
  EXPECT_TRUE(pxkit::rules::cpuPlacesFromCpuinfo("model name : x\n").empty());
}

TEST(PXRuleCheckerSysCtlFunction, ParsesMemoryAndIntegerTexts) {
  struct BlockRow {
    const char* text;
    std::optional<uint64_t> size;
  };
  const BlockRow blocks[] = {
      {"8000000\n", 0x8000000}, {"0x10000000", 0x10000000}, {"0", std::nullopt},
      {"", std::nullopt},       {"12g", std::nullopt},      {"fffffffffffffffff", std::nullopt},
  };
  for (const BlockRow& row : blocks)
    EXPECT_EQ(pxkit::rules::parseBlockSizeBytes(row.text), row.size) << row.text;

  struct MemRow {
    const char* text;
    std::optional<uint64_t> bytes;
  };
  const MemRow mems[] = {
      {"MemTotal:       24681234 kB\nMemFree: 1 kB\n", uint64_t{24681234} * 1024},
      {"MemFree: 1 kB\n", std::nullopt},
      {"MemTotal: 12 MB\n", std::nullopt},
      {"MemTotal: x kB\n", std::nullopt},
  };
  for (const MemRow& row : mems)
    EXPECT_EQ(pxkit::rules::memTotalFromMeminfo(row.text), row.bytes) << row.text;

  struct IntRow {
    const char* text;
    std::optional<uint64_t> bits;
    size_t size;
  };
  const IntRow ints[] = {
      {"60\n", 60, 4},
      {" -1 ", static_cast<uint64_t>(-1), 4},
      {"2147483648", 2147483648, 8},
      {"-2147483649", static_cast<uint64_t>(int64_t{-2147483649}), 8},
      {"18446744073709551615", UINT64_MAX, 8},
      {"18446744073709551616", std::nullopt, 0},
      {"4\t4\t1\t7", std::nullopt, 0},
      {"Linux", std::nullopt, 0},
      {"", std::nullopt, 0},
  };
  for (const IntRow& row : ints) {
    SCOPED_TRACE(row.text);
    std::optional<pxkit::rules::SysCtlValue> value = pxkit::rules::integerFromText(row.text);
    ASSERT_EQ(value.has_value(), row.bits.has_value());
    if (!value) continue;
    EXPECT_EQ(value->bits, *row.bits);
    EXPECT_EQ(value->size, row.size);
  }
}

// What the provider answers for each argument, as an object and as text.
struct AnswerRow {
  const char* argument;
  PXValue object;  // absent: no answer
  const char* text;
};

void expectAnswers(PXRuleCheckerSysCtlFunction& sysctl, const std::vector<AnswerRow>& rows) {
  for (const AnswerRow& row : rows) {
    SCOPED_TRACE(row.argument);
    const PXValue object = sysctl.resultFor(PXValue(row.argument), false);
    EXPECT_EQ(object, row.object) << object.description().view();
    const PXValue text = sysctl.resultFor(PXValue(row.argument), true);
    if (row.text) {
      EXPECT_EQ(text, PXValue(row.text));
    } else {
      EXPECT_FALSE(text);
    }
  }
}

TEST(PXRuleCheckerSysCtlFunction, AnswersFromAnX86TreeWithSmt) {
  PXRef<PXRuleCheckerSysCtlFunction> sysctl = PXMake<PXRuleCheckerSysCtlFunction>(fixture("sysctl-smt"));
  const uint64_t memsize = 4 * uint64_t{0x8000000};  // blocks 0, 1, 2 and 9 (7 is off line)
  const std::string memsizeText = std::to_string(memsize);
  expectAnswers(*sysctl,
                {
                    {"integer.hw.physicalcpu", PXValue(2), "2"},
                    {"integer.hw.logicalcpu", PXValue(4), "4"},
                    {"integer.hw.ncpu", PXValue(8), "8"},
                    {"integer.hw.memsize", PXValue(static_cast<long long>(memsize)), memsizeText.c_str()},
                    {"unsignedInteger.hw.memsize", PXValue(static_cast<unsigned long long>(memsize)),
                     memsizeText.c_str()},
                    {"string.machdep.cpu.brand_string", PXValue("Intel(R) Core(TM) i7-8650U CPU @ 1.90GHz"),
                     "Intel(R) Core(TM) i7-8650U CPU @ 1.90GHz"},
                    {"kern.hostname", PXValue("fixture-host"), "fixture-host"},
                    {"string.kern.osrelease", PXValue("6.1.0-18-amd64"), "6.1.0-18-amd64"},
                    {"vm.swappiness", PXValue("60"), "60"},
                    {"integer.vm.swappiness", PXValue(60), "60"},
                    {"integer.kernel.perf_event_paranoid", PXValue(-1), "-1"},
                    {"unsignedInteger.kernel.perf_event_paranoid", PXValue(4294967295U), "4294967295"},
                    {"integer.kernel.huge", PXValue(-1LL), "-1"},
                    {"unsignedInteger.kernel.huge", PXValue(18446744073709551615ULL), "18446744073709551615"},
                    // A number read as text is its bytes: 8 CPUs are "\b", never "8".
                    {"hw.ncpu", PXValue("\b"), "\b"},
                    // The low byte of 512 MiB is zero: the empty text.
                    {"string.hw.memsize", PXValue(""), ""},
                    {"integer.kernel.printk", PXValue(), nullptr},
                    {"kern.ostype", PXValue("Linux"), "Linux"},
                    {"integer.kern.ostype", PXValue(), nullptr},
                    {"integer", PXValue(), nullptr},
                    {"hostname", PXValue(), nullptr},
                    {"kernel..hostname", PXValue(), nullptr},
                    {"string.kernel.missing", PXValue(), nullptr},
                    {"string.kernel/../kernel.hostname", PXValue(), nullptr},
                });
  // Arguments other than a string answer absent.
  PXRef<PXMutableDictionary> options = PXMutableDictionary::dictionary();
  options->setObject(PXValue::null(), PXValue("integer.hw.ncpu"));
  EXPECT_FALSE(sysctl->resultFor(PXValue(PXRef<PXDictionary>(options)), false));
  EXPECT_FALSE(sysctl->resultFor(PXValue(), true));
  EXPECT_FALSE(sysctl->resultFor(PXValue(3), false));
}

TEST(PXRuleCheckerSysCtlFunction, FallsBackToCpuinfoAndMeminfoOnArm64) {
  PXRef<PXRuleCheckerSysCtlFunction> sysctl = PXMake<PXRuleCheckerSysCtlFunction>(fixture("sysctl-arm64"));
  expectAnswers(*sysctl,
                {
                    {"string.machdep.cpu.brand_string", PXValue("ARM Cortex-A72"), "ARM Cortex-A72"},
                    {"integer.hw.physicalcpu", PXValue(3), "3"},  // no topology: each processor a core
                    {"integer.hw.logicalcpu", PXValue(3), "3"},
                    {"integer.hw.ncpu", PXValue(), nullptr},  // no "present" list, and not the running system
                    {"integer.hw.memsize", PXValue(8046784LL * 1024), "8239906816"},
                });
}

TEST(PXRuleCheckerSysCtlFunction, ReadsTheRunningSystem) {
  // Cross-checked with the system's own answers, not with fixed figures.
  EXPECT_EQ(PXRuleCheckerSysCtlFunction::sysCtlIntegerValueForName("hw.logicalcpu", false),
            PXValue(static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN))));
  char host[256] = {};
  ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
  EXPECT_EQ(PXRuleCheckerSysCtlFunction::sysCtlStringValueForName("kern.hostname"), PXString(host));
  const PXValue memsize = PXRuleCheckerSysCtlFunction::sysCtlIntegerValueForName("hw.memsize", false);
  ASSERT_TRUE(memsize);
  EXPECT_GE(memsize.longLongValue(), static_cast<long long>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE));
  const PXValue physical = PXRuleCheckerSysCtlFunction::sysCtlIntegerValueForName("hw.physicalcpu", false);
  ASSERT_TRUE(physical);
  EXPECT_GE(physical.longLongValue(), 1);
  EXPECT_LE(physical.longLongValue(), sysconf(_SC_NPROCESSORS_ONLN));
}

}  // namespace
