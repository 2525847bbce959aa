// Kernel system values by name for the sysctl rule provider: where Linux
// keeps each one, the pure parsers of those sources, and the read below a
// system root.
//
// A value is text or an integer of a width (1 to 8 bytes). Names with an
// entry in the mapped table (hw.physicalcpu, hw.memsize,
// machdep.cpu.brand_string, kern.hostname, ...) are computed from the
// hardware sources; any other name "a.b.c" is the text of proc/sys/a/b/c.
//
// Thread safety: pure functions and plain file reads; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pxkit::rules {

struct SysCtlValue {
  enum class Kind : uint8_t { Text, Integer };
  Kind kind = Kind::Text;
  std::string text;   // Text
  uint64_t bits = 0;  // Integer: the value's bytes (two's complement), `size` of them significant
  size_t size = 0;    // Integer: 1 to 8 bytes
};

// The processor's brand text from /proc/cpuinfo: the first "model name"
// (x86, 32-bit ARM), else the decoded "CPU implementer" and "CPU part" of the
// first processor (arm64: "ARM Cortex-A72"). Nothing when neither is known.
std::optional<std::string> cpuBrandFromCpuinfo(std::string_view cpuinfo);

// The CPU numbers of a kernel CPU list ("0-3,8,10-11\n"); nothing when malformed.
std::optional<std::vector<int>> parseCpuList(std::string_view list);

// One CPU's place in the topology: its package and the CPUs sharing its core.
struct CpuPlace {
  std::string package;  // physical_package_id (cpuinfo: "physical id")
  std::string core;     // core_cpus_list or thread_siblings_list (cpuinfo: "core id")
};
// The number of physical cores: distinct (package, core) places.
int64_t countPhysicalCores(const std::vector<CpuPlace>& places);
// The places of the processors of /proc/cpuinfo ("physical id", "core id");
// a processor without them is a core of its own.
std::vector<CpuPlace> cpuPlacesFromCpuinfo(std::string_view cpuinfo);

// A memory block size: the hexadecimal text of block_size_bytes ("8000000"
// or "0x8000000"); nothing when malformed or zero.
std::optional<uint64_t> parseBlockSizeBytes(std::string_view text);
// MemTotal of /proc/meminfo in bytes; nothing when absent.
std::optional<uint64_t> memTotalFromMeminfo(std::string_view meminfo);

// A text value as an integer: one decimal integer, white space around it
// allowed; 4 bytes when it fits a signed 32-bit number, else 8. Nothing for
// any other text ("4 4 1 7", "Linux", "").
std::optional<SysCtlValue> integerFromText(std::string_view text);

// The value `name` below `root` ("/" for the running system); nothing when
// the name is unknown, malformed ("", "a..b", "../x") or unreadable.
std::optional<SysCtlValue> readSysCtlValue(std::string_view name, std::string_view root);

}  // namespace pxkit::rules
