// Kernel system values by name; see SysCtlSources.h.
#include "rules/internal/SysCtlSources.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <filesystem>
#include <limits>
#include <set>
#include <system_error>
#include <utility>

#include "rules/internal/SystemFacts.h"

namespace pxkit::rules {

namespace {

constexpr std::string_view kWhiteSpace = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

// Calls `line(key, value)` for each "key : value" line of cpuinfo-like text;
// a blank line calls `line("", "")` (the end of one processor's block).
template <typename F>
void forEachField(std::string_view text, F&& line) {
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string_view current = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    const size_t colon = current.find(':');
    if (trimmed(current).empty()) {
      line(std::string_view(), std::string_view());
    } else if (colon != std::string_view::npos) {
      line(trimmed(current.substr(0, colon)), trimmed(current.substr(colon + 1)));
    }
  }
}

std::optional<unsigned> parseNumber(std::string_view text, int base) {
  text = trimmed(text);
  if (base == 16 && (text.starts_with("0x") || text.starts_with("0X"))) text.remove_prefix(2);
  unsigned value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// The arm64 processors named by their implementer and part numbers.
struct ArmPart {
  unsigned implementer, part;
  const char* name;
};
constexpr std::array kArmImplementers = {
    std::pair<unsigned, const char*>{0x41, "ARM"},    std::pair<unsigned, const char*>{0x48, "HiSilicon"},
    std::pair<unsigned, const char*>{0x4e, "NVIDIA"}, std::pair<unsigned, const char*>{0x51, "Qualcomm"},
    std::pair<unsigned, const char*>{0x61, "Apple"},  std::pair<unsigned, const char*>{0xc0, "Ampere"},
};
constexpr std::array kArmParts = {
    ArmPart{0x41, 0xd03, "Cortex-A53"},      ArmPart{0x41, 0xd04, "Cortex-A35"},
    ArmPart{0x41, 0xd05, "Cortex-A55"},      ArmPart{0x41, 0xd07, "Cortex-A57"},
    ArmPart{0x41, 0xd08, "Cortex-A72"},      ArmPart{0x41, 0xd09, "Cortex-A73"},
    ArmPart{0x41, 0xd0a, "Cortex-A75"},      ArmPart{0x41, 0xd0b, "Cortex-A76"},
    ArmPart{0x41, 0xd0c, "Neoverse-N1"},     ArmPart{0x41, 0xd0d, "Cortex-A77"},
    ArmPart{0x41, 0xd40, "Neoverse-V1"},     ArmPart{0x41, 0xd41, "Cortex-A78"},
    ArmPart{0x41, 0xd46, "Cortex-A510"},     ArmPart{0x41, 0xd47, "Cortex-A710"},
    ArmPart{0x41, 0xd49, "Neoverse-N2"},     ArmPart{0x41, 0xd4f, "Neoverse-V2"},
    ArmPart{0x48, 0xd01, "Kunpeng-920"},     ArmPart{0x51, 0x800, "Kryo-2XX-Gold"},
    ArmPart{0x51, 0x801, "Kryo-2XX-Silver"}, ArmPart{0x61, 0x022, "Icestorm-M1"},
    ArmPart{0x61, 0x023, "Firestorm-M1"},    ArmPart{0xc0, 0xac3, "Ampere-1"},
};

std::string armBrand(unsigned implementer, unsigned part) {
  const auto maker = std::find_if(kArmImplementers.begin(), kArmImplementers.end(),
                                  [&](const auto& entry) { return entry.first == implementer; });
  const auto model = std::find_if(kArmParts.begin(), kArmParts.end(), [&](const ArmPart& entry) {
    return entry.implementer == implementer && entry.part == part;
  });
  if (maker == kArmImplementers.end() || model == kArmParts.end()) return "";
  return std::string(maker->second) + " " + model->name;
}

std::optional<std::string> fileText(std::string_view root, std::string_view relative) {
  return readWholeFile(pathBelowRoot(root, relative));
}

// A file's text without its line end.
std::optional<std::string> fileLine(std::string_view root, std::string_view relative) {
  std::optional<std::string> text = fileText(root, relative);
  if (!text) return std::nullopt;
  while (!text->empty() && (text->back() == '\n' || text->back() == '\r')) text->pop_back();
  return text;
}

SysCtlValue integerValue(uint64_t bits, size_t size) {
  SysCtlValue value;
  value.kind = SysCtlValue::Kind::Integer;
  value.bits = bits;
  value.size = size;
  return value;
}

SysCtlValue textValue(std::string text) {
  SysCtlValue value;
  value.text = std::move(text);
  return value;
}

bool isRunningSystem(std::string_view root) {
  return root == "/" || root.empty();
}

// The number of CPUs in a CPU list file (online, present); for the running
// system sysconf(`fallback`) when the file cannot be read.
std::optional<SysCtlValue> cpuCount(std::string_view root, std::string_view relative, int fallback) {
  if (std::optional<std::string> list = fileText(root, relative)) {
    if (std::optional<std::vector<int>> cpus = parseCpuList(*list); cpus && !cpus->empty())
      return integerValue(cpus->size(), 4);
  }
  if (!isRunningSystem(root)) return std::nullopt;
  const long count = sysconf(fallback);
  if (count <= 0) return std::nullopt;
  return integerValue(static_cast<uint64_t>(count), 4);
}

std::optional<SysCtlValue> physicalCpuCount(std::string_view root) {
  std::vector<CpuPlace> places;
  if (std::optional<std::string> online = fileText(root, "sys/devices/system/cpu/online")) {
    for (int cpu : parseCpuList(*online).value_or(std::vector<int>())) {
      const std::string topology = "sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/topology/";
      std::optional<std::string> package = fileLine(root, topology + "physical_package_id");
      std::optional<std::string> core = fileLine(root, topology + "core_cpus_list");
      if (!core) core = fileLine(root, topology + "thread_siblings_list");
      if (!package || !core) {
        places.clear();
        break;
      }
      places.push_back({std::move(*package), std::move(*core)});
    }
  }
  if (places.empty()) {
    if (std::optional<std::string> cpuinfo = fileText(root, "proc/cpuinfo"))
      places = cpuPlacesFromCpuinfo(*cpuinfo);
  }
  if (places.empty()) return std::nullopt;
  return integerValue(static_cast<uint64_t>(countPhysicalCores(places)), 4);
}

std::optional<SysCtlValue> memorySize(std::string_view root) {
  const std::string memory = pathBelowRoot(root, "sys/devices/system/memory");
  std::optional<std::string> blockSizeText = readWholeFile(memory + "/block_size_bytes");
  std::optional<uint64_t> blockSize = blockSizeText ? parseBlockSizeBytes(*blockSizeText) : std::nullopt;
  uint64_t blocks = 0;
  std::error_code error;
  if (blockSize) {
    // Incremented with an error code: a listing that fails half way ends the count.
    std::filesystem::directory_iterator entry(memory, error), end;
    for (; !error && entry != end; entry.increment(error)) {
      const std::string name = entry->path().filename().string();
      if (!name.starts_with("memory") || name.size() == 6 ||
          name.find_first_not_of("0123456789", 6) != std::string::npos)
        continue;
      // A block without an "online" file cannot be taken off line: it counts.
      std::optional<std::string> online = readWholeFile(entry->path().string() + "/online");
      if (!online || trimmed(*online) == "1") ++blocks;
    }
  }
  if (blocks > 0 && *blockSize <= std::numeric_limits<uint64_t>::max() / blocks)
    return integerValue(blocks * *blockSize, 8);
  std::optional<std::string> meminfo = fileText(root, "proc/meminfo");
  std::optional<uint64_t> total = meminfo ? memTotalFromMeminfo(*meminfo) : std::nullopt;
  if (!total) return std::nullopt;
  return integerValue(*total, 8);
}

std::optional<SysCtlValue> hostName(std::string_view root) {
  if (std::optional<std::string> name = fileLine(root, "proc/sys/kernel/hostname")) return textValue(*name);
  if (!isRunningSystem(root)) return std::nullopt;
  std::array<char, HOST_NAME_MAX + 1> buffer{};
  if (gethostname(buffer.data(), buffer.size() - 1) != 0) return std::nullopt;
  return textValue(buffer.data());
}

// The renamed kernel values: a name and its file below proc/sys.
constexpr std::array<std::pair<std::string_view, std::string_view>, 3> kRenamedFiles = {{
    {"kern.ostype", "kernel/ostype"},
    {"kern.version", "kernel/version"},
    {"kern.domainname", "kernel/domainname"},
}};

// "a.b.c" as "a/b/c" below proc/sys; nothing for an empty component.
std::optional<std::string> procSysPath(std::string_view name) {
  std::string path = "proc/sys/";
  size_t start = 0;
  while (true) {
    const size_t dot = name.find('.', start);
    const std::string_view component =
        name.substr(start, dot == std::string_view::npos ? name.npos : dot - start);
    if (component.empty() || component.find('/') != std::string_view::npos || component == "..")
      return std::nullopt;
    path.append(component);
    if (dot == std::string_view::npos) return path;
    path.push_back('/');
    start = dot + 1;
  }
}

}  // namespace

std::optional<std::string> cpuBrandFromCpuinfo(std::string_view cpuinfo) {
  std::optional<std::string> modelName;
  std::optional<unsigned> implementer, part;
  bool firstBlockDone = false;
  forEachField(cpuinfo, [&](std::string_view key, std::string_view value) {
    if (key.empty()) {
      if (implementer || part) firstBlockDone = true;
      return;
    }
    if (key == "model name" && !modelName) modelName = std::string(value);
    if (firstBlockDone) return;
    if (key == "CPU implementer") implementer = parseNumber(value, 16);
    if (key == "CPU part") part = parseNumber(value, 16);
  });
  if (modelName) return modelName;
  if (implementer && part) {
    std::string brand = armBrand(*implementer, *part);
    if (!brand.empty()) return brand;
  }
  return std::nullopt;
}

std::optional<std::vector<int>> parseCpuList(std::string_view list) {
  list = trimmed(list);
  std::vector<int> cpus;
  if (list.empty()) return cpus;
  while (true) {
    const size_t comma = list.find(',');
    const std::string_view range = list.substr(0, comma);
    const size_t dash = range.find('-');
    std::optional<unsigned> first = parseNumber(range.substr(0, dash), 10);
    std::optional<unsigned> last =
        dash == std::string_view::npos ? first : parseNumber(range.substr(dash + 1), 10);
    // A kernel CPU number stays far below this; a larger one is not a CPU list.
    constexpr unsigned kMaxCpu = 1U << 16;
    if (!first || !last || *first > *last || *last >= kMaxCpu) return std::nullopt;
    for (unsigned cpu = *first; cpu <= *last; ++cpu) cpus.push_back(static_cast<int>(cpu));
    if (comma == std::string_view::npos) break;
    list.remove_prefix(comma + 1);
  }
  std::sort(cpus.begin(), cpus.end());
  cpus.erase(std::unique(cpus.begin(), cpus.end()), cpus.end());
  return cpus;
}

int64_t countPhysicalCores(const std::vector<CpuPlace>& places) {
  std::set<std::pair<std::string, std::string>> distinct;
  for (const CpuPlace& place : places) distinct.emplace(place.package, place.core);
  return static_cast<int64_t>(distinct.size());
}

std::vector<CpuPlace> cpuPlacesFromCpuinfo(std::string_view cpuinfo) {
  std::vector<CpuPlace> places;
  bool inProcessor = false;
  CpuPlace current;
  auto finish = [&] {
    if (!inProcessor) return;
    // Without "core id" each processor is a core of its own.
    if (current.core.empty()) current.core = "processor " + std::to_string(places.size());
    places.push_back(std::move(current));
    current = CpuPlace();
    inProcessor = false;
  };
  forEachField(cpuinfo, [&](std::string_view key, std::string_view value) {
    if (key.empty()) return finish();
    if (key == "processor") {
      finish();
      inProcessor = true;
    } else if (key == "physical id") {
      current.package = std::string(value);
    } else if (key == "core id") {
      current.core = std::string(value);
    }
  });
  finish();
  return places;
}

std::optional<uint64_t> parseBlockSizeBytes(std::string_view text) {
  text = trimmed(text);
  if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
  uint64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || value == 0)
    return std::nullopt;
  return value;
}

std::optional<uint64_t> memTotalFromMeminfo(std::string_view meminfo) {
  std::optional<uint64_t> total;
  forEachField(meminfo, [&](std::string_view key, std::string_view value) {
    if (key != "MemTotal" || total) return;
    if (!value.ends_with("kB")) return;
    value = trimmed(value.substr(0, value.size() - 2));
    uint64_t kilobytes = 0;
    auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), kilobytes);
    if (!value.empty() && error == std::errc() && end == value.data() + value.size() &&
        kilobytes <= std::numeric_limits<uint64_t>::max() / 1024)
      total = kilobytes * 1024;
  });
  return total;
}

std::optional<SysCtlValue> integerFromText(std::string_view text) {
  text = trimmed(text);
  if (text.empty()) return std::nullopt;
  int64_t value = 0;
  const char* last = text.data() + text.size();
  if (auto [end, error] = std::from_chars(text.data(), last, value); error == std::errc() && end == last) {
    const bool fits32 = value >= INT32_MIN && value <= INT32_MAX;
    return integerValue(static_cast<uint64_t>(value), fits32 ? 4 : 8);
  }
  uint64_t large = 0;  // above the signed range: the unsigned 64-bit value
  if (auto [end, error] = std::from_chars(text.data(), last, large); error == std::errc() && end == last)
    return integerValue(large, 8);
  return std::nullopt;
}

std::optional<SysCtlValue> readSysCtlValue(std::string_view name, std::string_view root) {
  if (name == "hw.physicalcpu") return physicalCpuCount(root);
  if (name == "hw.logicalcpu" || name == "hw.activecpu")
    return cpuCount(root, "sys/devices/system/cpu/online", _SC_NPROCESSORS_ONLN);
  if (name == "hw.ncpu") return cpuCount(root, "sys/devices/system/cpu/present", _SC_NPROCESSORS_CONF);
  if (name == "hw.memsize") return memorySize(root);
  if (name == "machdep.cpu.brand_string") {
    std::optional<std::string> cpuinfo = fileText(root, "proc/cpuinfo");
    std::optional<std::string> brand = cpuinfo ? cpuBrandFromCpuinfo(*cpuinfo) : std::nullopt;
    return brand ? std::optional(textValue(*brand)) : std::nullopt;
  }
  if (name == "kern.hostname") return hostName(root);
  if (name == "kern.osrelease") {
    std::string release = kernelRelease(root);
    return release.empty() ? std::nullopt : std::optional(textValue(std::move(release)));
  }
  for (const auto& [renamed, file] : kRenamedFiles) {
    if (name == renamed) {
      std::optional<std::string> text = fileLine(root, std::string("proc/sys/").append(file));
      return text ? std::optional(textValue(std::move(*text))) : std::nullopt;
    }
  }
  std::optional<std::string> path = procSysPath(name);
  if (!path) return std::nullopt;
  std::optional<std::string> text = fileLine(root, *path);
  return text ? std::optional(textValue(std::move(*text))) : std::nullopt;
}

}  // namespace pxkit::rules
