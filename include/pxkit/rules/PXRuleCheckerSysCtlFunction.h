// PXKit — the rule provider of kernel system values ("sysctl" names).
//
// Identifier and key path prefix "sysctl": "sysctl.integer.hw.physicalcpu"
// and "${sysctl(integer.hw.physicalcpu)}" ask the same thing. The argument is
// a string "<type>.<name>":
//
//   integer.<name>          a signed number of the value's own width
//   unsignedInteger.<name>  the same bits as an unsigned number
//   string.<name>           the value as text
//   <name>                  (any other first word) the text of the whole
//                           argument: "sysctl.kern.hostname"
//
// With returnString a number comes back as its decimal text. A dictionary of
// arguments, a string without a ".", and "integer" alone answer absent.
//
// Names and where Linux keeps them (docs/linux-sources.md, "Kernel system values"):
//
//   hw.physicalcpu            distinct (physical_package_id, core_cpus_list) over
//                             the online CPUs' topology; /proc/cpuinfo's
//                             ("physical id", "core id") without topology  (4 bytes)
//   hw.logicalcpu, hw.activecpu  the online CPUs (sys/devices/system/cpu/online)  (4 bytes)
//   hw.ncpu                   the present CPUs (sys/devices/system/cpu/present)  (4 bytes)
//   hw.memsize                online memory blocks x block_size_bytes (the
//                             installed RAM); MemTotal without blocks  (8 bytes)
//   machdep.cpu.brand_string  the first "model name" of /proc/cpuinfo; on arm64
//                             the decoded implementer and part ("ARM Cortex-A72")
//   kern.hostname             proc/sys/kernel/hostname
//   kern.osrelease            proc/sys/kernel/osrelease (uname's release)
//   kern.ostype, kern.version, kern.domainname   proc/sys/kernel/<same>
//   any other a.b.c           the text of proc/sys/a/b/c ("vm.swappiness")
//
// Text values read as integers when they are one decimal number: 4 bytes when
// it fits a signed 32-bit number, else 8 ("kernel.printk" = "4 4 1 7" gives
// absent). Kept on purpose: a number read with the "string" type is its bytes
// taken as a zero-terminated UTF-8 text — "sysctl.hw.ncpu" gives "\x02" for two
// CPUs, or absent, never "2"; the type word is needed for numbers.
//
// The facts are read below a system root, "/" by default (the running system,
// where sysconf, gethostname and uname stand in for missing files); a test or
// a tool hands in another tree holding proc/ and sys/. Failures give absent;
// nothing is logged or raised.
//
// Thread safety: immutable after construction; resultFor and the class
// operations may run on any thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/rules/PXRuleCheckerFunction.h>

#include <string>
#include <string_view>

class PXKIT_EXPORT PXRuleCheckerSysCtlFunction : public PXRuleCheckerFunction {
  PX_DECLARE_CLASS(PXRuleCheckerSysCtlFunction)

 public:
  // A new provider reading the running system ("+function").
  static PXRef<PXRuleCheckerSysCtlFunction> function();

  explicit PXRuleCheckerSysCtlFunction(std::string systemRoot = "/");

  PXValue resultFor(const PXValue& argument, bool returnString) override;

  // The value `name` as text; absent when unknown or unreadable, or when the
  // bytes of a number are not UTF-8.
  static PXString sysCtlStringValueForName(std::string_view name, std::string_view systemRoot = "/");
  // The value `name` as a number of its width (1, 2, 4 or 8 bytes), signed,
  // or unsigned with `useUnsignedInt`; absent when unknown, unreadable or not
  // a number.
  static PXValue sysCtlIntegerValueForName(std::string_view name, bool useUnsignedInt,
                                           std::string_view systemRoot = "/");

  const std::string& systemRoot() const noexcept { return systemRoot_; }

 private:
  std::string systemRoot_;
};
