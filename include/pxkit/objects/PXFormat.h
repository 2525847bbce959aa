// PXKit — printf-style formatting with "%@".
//
// PXFormat understands the directives of the kit's messages and log lines:
//   %@ (any PXValue, PXString or object; "(null)" when absent), %d %i %u %ld %lu
//   %lld %llu %x %X %02x %2.2x %4.4x %f %.01f %.17g %g %e %s %c %p %*.*s %%
// Flags, width and precision work as in printf, including '*' taken from the
// arguments. Arguments are type-checked at run time: a mismatch formats the
// argument as well as it can (never undefined behaviour).
//
//   PXString line = PXFormat("%s: attempt to remove non-existing %p from %@", __func__, token, object);
//
// Thread safety: pure.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXValue.h>

#include <cstdint>
#include <span>
#include <string>
#include <type_traits>

class PXObject;

namespace pxkit::internal {
// One argument, as the formatter sees it.
struct FormatArg {
  enum class Type : uint8_t { Signed, Unsigned, Double, CString, Pointer, Value } type;
  union {
    int64_t i;
    uint64_t u;
    double d;
    const char* s;
    const void* p;
    const PXValue* v;
  };
};

template <class T>
FormatArg makeFormatArg(const T& arg) {
  FormatArg a{};
  using D = std::decay_t<T>;
  if constexpr (std::is_same_v<D, PXValue>) {
    a.type = FormatArg::Type::Value, a.v = &arg;
  } else if constexpr (std::is_same_v<D, bool>) {
    a.type = FormatArg::Type::Signed, a.i = arg;
  } else if constexpr (std::is_integral_v<D> && std::is_signed_v<D>) {
    a.type = FormatArg::Type::Signed, a.i = arg;
  } else if constexpr (std::is_integral_v<D>) {
    a.type = FormatArg::Type::Unsigned, a.u = arg;
  } else if constexpr (std::is_enum_v<D>) {
    a.type = FormatArg::Type::Signed, a.i = static_cast<int64_t>(arg);
  } else if constexpr (std::is_floating_point_v<D>) {
    a.type = FormatArg::Type::Double, a.d = arg;
  } else if constexpr (std::is_same_v<D, const char*> || std::is_same_v<D, char*>) {
    a.type = FormatArg::Type::CString, a.s = arg;
  } else if constexpr (std::is_array_v<T>) {
    a.type = FormatArg::Type::CString, a.s = arg;
  } else if constexpr (std::is_pointer_v<D>) {
    a.type = FormatArg::Type::Pointer, a.p = static_cast<const void*>(arg);
  } else {
    static_assert(sizeof(T) == 0, "PXFormat: convert this argument to a PXValue first");
  }
  return a;
}

PXKIT_EXPORT std::string formatArgs(const char* format, std::span<const FormatArg> args);
}  // namespace pxkit::internal

// Arguments that become values for "%@" (strings, objects, refs) are held for the call.
template <class... Args>
PXString PXFormat(const char* format, const Args&... args) {
  [[maybe_unused]] auto hold = [](const auto& arg) -> decltype(auto) {
    using D = std::decay_t<decltype(arg)>;
    if constexpr (std::is_same_v<D, PXString> || std::is_same_v<D, std::string> ||
                  std::is_same_v<D, std::string_view> || std::is_same_v<D, PXDate> ||
                  requires { typename D::element_type; }) {
      return PXValue(arg);
    } else {
      return (arg);
    }
  };
  // Values converted above live until the end of this full expression.
  return [&](const auto&... held) {
    const pxkit::internal::FormatArg list[] = {pxkit::internal::makeFormatArg(held)..., {}};
    return PXString(pxkit::internal::formatArgs(format, std::span(list, sizeof...(Args))));
  }(hold(args)...);
}
