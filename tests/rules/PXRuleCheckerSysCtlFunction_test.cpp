// The sysctl provider: its parsers on sample text, then fixture system trees.
#include <gtest/gtest.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/rules/PXRuleCheckerSysCtlFunction.h>

#include <optional>
#include <string>
#include <vector>

#include "rules/internal/SysCtlSources.h"
#include "support/PXTestPaths.h"

namespace {

namespace rules = pxkit::rules;

constexpr const char* kArm64Cpuinfo =
    "processor\t: 0\nBogoMIPS\t: 108.00\nCPU implementer\t: 0x41\nCPU architecture: 8\n"
    "CPU part\t: 0xd0c\n\nprocessor\t: 1\nCPU implementer\t: 0x61\nCPU part\t: 0x023\n\n";

TEST(PXRuleCheckerSysCtlFunction, ParsesCpuinfoCpuListsAndMemoryTexts) {
  const std::pair<const char*, std::optional<std::string>> brands[] = {
      {"processor\t: 0\nmodel name\t: AMD EPYC 7B13\n\nprocessor\t: 1\nmodel name\t: Other\n",
       "AMD EPYC 7B13"},
      {"model name\t: ARMv7 rev 4\nCPU implementer\t: 0x41\nCPU part\t: 0xd08\n",
       "ARMv7 rev 4"},                                                 // before parts
      {kArm64Cpuinfo, "ARM Neoverse-N1"},                              // the first processor's part
      {"CPU implementer\t: 0x41\nCPU part\t: 0xfff\n", std::nullopt},  // an unknown part
      {"CPU implementer\t: 0x99\nCPU part\t: 0xd08\n", std::nullopt},  // an unknown maker
      {"model name without colon\n", std::nullopt},
  };
  for (const auto& [text, brand] : brands) EXPECT_EQ(rules::cpuBrandFromCpuinfo(text), brand) << text;
  const std::pair<const char*, std::optional<std::vector<int>>> lists[] = {
      {"0-1,8,10-11\n", std::vector<int>{0, 1, 8, 10, 11}},
      {"3,1-2,2", std::vector<int>{1, 2, 3}},
      {"", std::vector<int>{}},
      {"0-99999999", std::nullopt},
  };
  for (const auto& [text, cpus] : lists) EXPECT_EQ(rules::parseCpuList(text), cpus) << text;
  // SMT: two threads a core; the same core id in two packages is two cores.
  EXPECT_EQ(rules::countPhysicalCores({{"0", "0,2"}, {"0", "1,3"}, {"0", "0,2"}, {"0", "1,3"}}), 2);
  EXPECT_EQ(rules::countPhysicalCores({{"0", "0"}, {"1", "0"}}), 2);
  const char* smt =
      "processor : 0\nphysical id : 0\ncore id : 0\n\nprocessor : 1\nphysical id : 0\ncore id : 0\n\n"
      "processor : 2\nphysical id : 0\ncore id : 1\n\nprocessor : 3\nphysical id : 0\ncore id : 1\n";
  EXPECT_EQ(rules::countPhysicalCores(rules::cpuPlacesFromCpuinfo(smt)), 2);
  EXPECT_EQ(rules::countPhysicalCores(rules::cpuPlacesFromCpuinfo(kArm64Cpuinfo)), 2);  // each its own core
  EXPECT_TRUE(rules::cpuPlacesFromCpuinfo("model name : x\n").empty());
  const std::pair<const char*, std::optional<uint64_t>> blocks[] = {
      {"8000000\n", 0x8000000}, {"0x10000000", 0x10000000}, {"0", std::nullopt},
      {"", std::nullopt},       {"12g", std::nullopt},      {"fffffffffffffffff", std::nullopt},
  };
  for (const auto& [text, size] : blocks) EXPECT_EQ(rules::parseBlockSizeBytes(text), size) << text;
  const std::pair<const char*, std::optional<uint64_t>> meminfo[] = {
      {"MemTotal:       24681234 kB\nMemFree: 1 kB\n", uint64_t{24681234} * 1024},
      {"MemTotal: 12 MB\n", std::nullopt},
      {"MemTotal: 18446744073709551615 kB\n", std::nullopt},  // would overflow as bytes
  };
  for (const auto& [text, bytes] : meminfo) EXPECT_EQ(rules::memTotalFromMeminfo(text), bytes) << text;
  // Integers beyond the fixture trees', sized 4 or 8 bytes.
  EXPECT_EQ(rules::integerFromText("2147483648")->size, 8u);
  EXPECT_EQ(rules::integerFromText("-2147483649")->bits, static_cast<uint64_t>(int64_t{-2147483649}));
  EXPECT_FALSE(rules::integerFromText("18446744073709551616"));
}

struct AnswerRow {
  const char* argument;
  PXValue object;  // absent: no answer
  const char* text;
};

void expectAnswers(const char* fixture, const std::vector<AnswerRow>& rows) {
  PXRef<PXRuleCheckerSysCtlFunction> sysctl =
      PXMake<PXRuleCheckerSysCtlFunction>(PXTestSourceDir() + "/tests/rules/fixtures/" + fixture);
  for (const AnswerRow& row : rows) {
    SCOPED_TRACE(row.argument);
    const PXValue object = sysctl->resultFor(PXValue(row.argument), false);
    EXPECT_EQ(object, row.object) << object.description().view();
    EXPECT_EQ(sysctl->resultFor(PXValue(row.argument), true), row.text ? PXValue(row.text) : PXValue());
  }
  EXPECT_FALSE(
      sysctl->resultFor(PXValue(PXDictionary::dictionaryWithEntries({{"integer.hw.ncpu", 1}})), false));
  EXPECT_FALSE(sysctl->resultFor(PXValue(3), true));
}

TEST(PXRuleCheckerSysCtlFunction, AnswersFromFixtureTrees) {
  const uint64_t memsize = 4 * uint64_t{0x8000000};  // blocks 0, 1, 2 and 9 (7 is off line)
  const std::string memsizeText = std::to_string(memsize);
  expectAnswers("sysctl-smt",
                {
                    {"integer.hw.physicalcpu", PXValue(2), "2"},
                    {"integer.hw.ncpu", PXValue(8), "8"},
                    {"integer.hw.memsize", PXValue(static_cast<long long>(memsize)), memsizeText.c_str()},
                    {"unsignedInteger.hw.memsize", PXValue(static_cast<unsigned long long>(memsize)),
                     memsizeText.c_str()},
                    {"string.machdep.cpu.brand_string", PXValue("Intel(R) Core(TM) i7-8650U CPU @ 1.90GHz"),
                     "Intel(R) Core(TM) i7-8650U CPU @ 1.90GHz"},
                    {"kern.hostname", PXValue("fixture-host"), "fixture-host"},
                    {"vm.swappiness", PXValue("60"), "60"},
                    {"integer.kernel.perf_event_paranoid", PXValue(-1), "-1"},
                    {"unsignedInteger.kernel.perf_event_paranoid", PXValue(4294967295U), "4294967295"},
                    {"unsignedInteger.kernel.huge", PXValue(18446744073709551615ULL), "18446744073709551615"},
                    // A number read as text is its bytes: 8 CPUs are "\b", never "8".
                    {"hw.ncpu", PXValue("\b"), "\b"},
                    // The low byte of 512 MiB is zero: the empty text.
                    {"string.hw.memsize", PXValue(""), ""},
                    // Only text of whole UTF-8 sequences is a string.
                    {"kernel.utf8", PXValue("\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"),
                     "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
                    {"kernel.badlead", PXValue(), nullptr},
                    {"integer.kernel.printk", PXValue(), nullptr},
                    {"kern.ostype", PXValue("Linux"), "Linux"},
                    {"integer.kern.ostype", PXValue(), nullptr},
                    {"kernel..hostname", PXValue(), nullptr},
                });
  expectAnswers("sysctl-arm64",
                {
                    {"string.machdep.cpu.brand_string", PXValue("ARM Cortex-A72"), "ARM Cortex-A72"},
                    {"integer.hw.physicalcpu", PXValue(3), "3"},  // no topology: each processor a core
                    {"integer.hw.logicalcpu", PXValue(3), "3"},
                    {"integer.hw.ncpu", PXValue(), nullptr},  // no "present" list, and not the running system
                    {"integer.hw.memsize", PXValue(8046784LL * 1024), "8239906816"},
                });
}

}  // namespace
