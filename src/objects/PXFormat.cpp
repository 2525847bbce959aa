#include <pxkit/objects/PXFormat.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

using pxkit::internal::FormatArg;

namespace {

// Widths and precisions beyond this are taken as this: no log line or message
// needs more, and it keeps the arithmetic below far from overflow.
constexpr int kMaxWidth = 1 << 20;

enum class Length : uint8_t { None, Char, Short, Long, LongLong, Size, Max, PtrDiff, LongDouble };

struct Spec {
  char flags[8] = {};
  int flagCount = 0;
  int width = -1;      // -1: none
  int precision = -1;  // -1: none
  Length length = Length::None;
  char conversion = 0;
  bool leftAlign() const { return std::memchr(flags, '-', static_cast<size_t>(flagCount)) != nullptr; }
  bool plain() const { return flagCount == 0 && width < 0 && precision < 0; }
};

// Reads a decimal number at `p`, clamped to kMaxWidth.
int readNumber(const char*& p) {
  int n = 0;
  while (*p >= '0' && *p <= '9') {
    n = n * 10 + (*p - '0');
    if (n > kMaxWidth) n = kMaxWidth;
    ++p;
  }
  return n;
}

class Formatter {
 public:
  Formatter(std::string& out, std::span<const FormatArg> args) : out_(out), args_(args) {}

  void run(const char* format) {
    const char* p = format;
    while (*p) {
      const char* percent = std::strchr(p, '%');
      if (!percent) {
        out_.append(p);
        return;
      }
      out_.append(p, static_cast<size_t>(percent - p));
      p = directive(percent);
    }
  }

 private:
  const FormatArg* take() { return next_ < args_.size() ? &args_[next_++] : nullptr; }

  // An int argument for '*': numbers as they are, anything else 0.
  int takeInt() {
    const FormatArg* a = take();
    if (!a) return 0;
    int64_t v = 0;
    switch (a->type) {
      case FormatArg::Type::Signed:
        v = a->i;
        break;
      case FormatArg::Type::Unsigned:
        v = a->u > static_cast<uint64_t>(kMaxWidth) ? kMaxWidth : static_cast<int64_t>(a->u);
        break;
      case FormatArg::Type::Double:
        v = std::isnan(a->d) ? 0 : static_cast<int64_t>(std::fmax(-kMaxWidth, std::fmin(kMaxWidth, a->d)));
        break;
      case FormatArg::Type::Value:
        v = a->v->longLongValue();
        break;
      default:
        break;
    }
    if (v > kMaxWidth) v = kMaxWidth;
    if (v < -kMaxWidth) v = -kMaxWidth;
    return static_cast<int>(v);
  }

  // Parses the directive starting at `percent` and writes it; returns where the text goes on.
  const char* directive(const char* percent) {
    const char* p = percent + 1;
    if (*p == '%') {
      out_ += '%';
      return p + 1;
    }
    Spec spec;
    // "%2$@": an explicit argument position (1-based).
    const char* digits = p;
    int position = readNumber(p);
    if (*p == '$' && p != digits && position > 0) {
      next_ = static_cast<size_t>(position - 1);
      ++p;
    } else {
      p = digits;
    }
    while (std::strchr("-+ #0'", *p) && *p) {
      if (spec.flagCount < 6) spec.flags[spec.flagCount++] = *p;
      ++p;
    }
    if (*p == '*') {
      int w = takeInt();
      if (w < 0) {
        if (spec.flagCount < 6) spec.flags[spec.flagCount++] = '-';
        w = -w;
      }
      spec.width = w;
      ++p;
    } else if (*p >= '0' && *p <= '9') {
      spec.width = readNumber(p);
    }
    if (*p == '.') {
      ++p;
      if (*p == '*') {
        int precision = takeInt();
        spec.precision = precision < 0 ? -1 : precision;
        ++p;
      } else {
        spec.precision = readNumber(p);
      }
    }
    switch (*p) {
      case 'h':
        spec.length = p[1] == 'h' ? Length::Char : Length::Short;
        p += p[1] == 'h' ? 2 : 1;
        break;
      case 'l':
        spec.length = p[1] == 'l' ? Length::LongLong : Length::Long;
        p += p[1] == 'l' ? 2 : 1;
        break;
      case 'q':
        spec.length = Length::LongLong;
        ++p;
        break;
      case 'j':
        spec.length = Length::Max;
        ++p;
        break;
      case 'z':
        spec.length = Length::Size;
        ++p;
        break;
      case 't':
        spec.length = Length::PtrDiff;
        ++p;
        break;
      case 'L':
        spec.length = Length::LongDouble;
        ++p;
        break;
      default:
        break;
    }
    spec.conversion = *p;
    switch (spec.conversion) {
      case 'd':
      case 'i':
        formatSigned(spec, take());
        break;
      case 'u':
      case 'x':
      case 'X':
      case 'o':
        formatUnsigned(spec, take());
        break;
      case 'f':
      case 'F':
      case 'e':
      case 'E':
      case 'g':
      case 'G':
      case 'a':
      case 'A':
        formatDouble(spec, take());
        break;
      case 'c':
        formatChar(spec, take());
        break;
      case 's':
      case '@':
        formatText(spec, take());
        break;
      case 'p':
        formatPointer(spec, take());
        break;
      case 'n':
        take();  // never written through: the count is of no use here
        break;
      case '\0':
        out_.append(percent, static_cast<size_t>(p - percent));
        return p;
      default:
        // Not a directive: the text stays as written.
        out_.append(percent, static_cast<size_t>(p + 1 - percent));
        break;
    }
    return p + 1;
  }

  // ---- Numbers through the C library, which knows every flag -----------------

  template <class T>
  void cFormat(const Spec& spec, const char* length, T value) {
    char format[40];
    char* f = format;
    *f++ = '%';
    for (int i = 0; i < spec.flagCount; ++i) *f++ = spec.flags[i];
    if (spec.width >= 0) f = std::to_chars(f, format + 20, spec.width).ptr;
    if (spec.precision >= 0) {
      *f++ = '.';
      f = std::to_chars(f, format + 32, spec.precision).ptr;
    }
    while (*length) *f++ = *length++;
    *f++ = spec.conversion;
    *f = '\0';
    char buffer[256];
    int n = std::snprintf(buffer, sizeof buffer, format, value);
    if (n < 0) return;
    if (static_cast<size_t>(n) < sizeof buffer) {
      out_.append(buffer, static_cast<size_t>(n));
      return;
    }
    size_t at = out_.size();
    out_.resize(at + static_cast<size_t>(n) + 1);
    std::snprintf(out_.data() + at, static_cast<size_t>(n) + 1, format, value);
    out_.resize(at + static_cast<size_t>(n));
  }

  void appendInteger(const Spec& spec, auto value) {
    if (spec.plain()) {
      char text[24];
      auto r = std::to_chars(text, text + sizeof text, value);
      out_.append(text, static_cast<size_t>(r.ptr - text));
    } else {
      cFormat(spec, "ll", value);
    }
  }

  static bool narrowLength(Length length) {
    return length == Length::None || length == Length::Char || length == Length::Short;
  }

  void formatSigned(Spec spec, const FormatArg* a) {
    int64_t v = 0;
    if (a) {
      switch (a->type) {
        case FormatArg::Type::Signed:
          v = a->i;
          break;
        case FormatArg::Type::Unsigned:
          v = static_cast<int64_t>(a->u);
          break;
        case FormatArg::Type::Double:
          v = PXValue(a->d).longLongValue();
          break;
        case FormatArg::Type::Value:
          v = a->v->longLongValue();
          break;
        case FormatArg::Type::CString:
        case FormatArg::Type::Pointer:
          v = static_cast<int64_t>(reinterpret_cast<uintptr_t>(a->p));
          break;
      }
    }
    // "%hhd" and "%hd" narrow as C does; "%d" given a 64-bit value shows all of it.
    if (spec.length == Length::Char) v = static_cast<signed char>(v);
    if (spec.length == Length::Short) v = static_cast<short>(v);
    spec.conversion = spec.conversion == 'i' ? 'd' : spec.conversion;
    appendInteger(spec, static_cast<long long>(v));
  }

  void formatUnsigned(const Spec& spec, const FormatArg* a) {
    uint64_t v = 0;
    if (a) {
      int64_t s = 0;
      bool isSigned = false;
      switch (a->type) {
        case FormatArg::Type::Signed:
          s = a->i, isSigned = true;
          break;
        case FormatArg::Type::Unsigned:
          v = a->u;
          break;
        case FormatArg::Type::Double:
          s = PXValue(a->d).longLongValue(), isSigned = true;
          break;
        case FormatArg::Type::Value:
          if (a->v->kind() == PXValue::Kind::UInt) {
            v = a->v->unsignedLongLongValue();
          } else {
            s = a->v->longLongValue(), isSigned = true;
          }
          break;
        case FormatArg::Type::CString:
        case FormatArg::Type::Pointer:
          v = reinterpret_cast<uintptr_t>(a->p);
          break;
      }
      if (isSigned) {
        // A negative int under "%u" or "%x" shows its 32-bit pattern, as in C;
        // with "l" or "ll", or a value beyond 32 bits, the 64-bit one.
        bool fits32 = s >= std::numeric_limits<int32_t>::min() && s <= std::numeric_limits<int32_t>::max();
        v = narrowLength(spec.length) && fits32 ? static_cast<uint32_t>(static_cast<int32_t>(s))
                                                : static_cast<uint64_t>(s);
      }
    }
    if (spec.length == Length::Char) v = static_cast<unsigned char>(v);
    if (spec.length == Length::Short) v = static_cast<unsigned short>(v);
    if (spec.conversion == 'u') {
      appendInteger(spec, static_cast<unsigned long long>(v));
    } else {
      cFormat(spec, "ll", static_cast<unsigned long long>(v));
    }
  }

  void formatDouble(const Spec& spec, const FormatArg* a) {
    double d = 0;
    if (a) {
      switch (a->type) {
        case FormatArg::Type::Double:
          d = a->d;
          break;
        case FormatArg::Type::Signed:
          d = static_cast<double>(a->i);
          break;
        case FormatArg::Type::Unsigned:
          d = static_cast<double>(a->u);
          break;
        case FormatArg::Type::Value:
          d = a->v->doubleValue();
          break;
        default:
          break;
      }
    }
    cFormat(spec, "", d);
  }

  void formatPointer(const Spec& spec, const FormatArg* a) {
    const void* p = nullptr;
    if (a) {
      switch (a->type) {
        case FormatArg::Type::CString:
        case FormatArg::Type::Pointer:
          p = a->p;
          break;
        case FormatArg::Type::Value:
          p = a->v->objectPointer();
          break;
        case FormatArg::Type::Signed:
          p = reinterpret_cast<const void*>(static_cast<uintptr_t>(a->i));
          break;
        case FormatArg::Type::Unsigned:
          p = reinterpret_cast<const void*>(static_cast<uintptr_t>(a->u));
          break;
        case FormatArg::Type::Double:
          break;
      }
    }
    Spec s = spec;
    s.length = Length::None;
    cFormat(s, "", p);
  }

  // ---- Text ------------------------------------------------------------------

  void pad(const Spec& spec, std::string_view text) {
    if (spec.precision >= 0 && text.size() > static_cast<size_t>(spec.precision))
      text = text.substr(0, static_cast<size_t>(spec.precision));
    size_t fill = spec.width > 0 && static_cast<size_t>(spec.width) > text.size()
                      ? static_cast<size_t>(spec.width) - text.size()
                      : 0;
    bool left = spec.leftAlign();
    if (!left) out_.append(fill, ' ');
    out_ += text;
    if (left) out_.append(fill, ' ');
  }

  void formatChar(const Spec& spec, const FormatArg* a) {
    uint64_t code = 0;
    if (a) {
      if (a->type == FormatArg::Type::Value) {
        code = static_cast<uint64_t>(a->v->longLongValue());
      } else if (a->type == FormatArg::Type::Signed) {
        code = static_cast<uint64_t>(a->i);
      } else if (a->type == FormatArg::Type::Unsigned) {
        code = a->u;
      }
    }
    char text[4];
    size_t n = 1;
    if (spec.length == Length::Long && code >= 0x80 && code <= 0x10ffff) {
      // "%lc": a code point, written as UTF-8.
      if (code < 0x800) {
        text[0] = static_cast<char>(0xc0 | (code >> 6));
        text[1] = static_cast<char>(0x80 | (code & 0x3f));
        n = 2;
      } else if (code < 0x10000) {
        text[0] = static_cast<char>(0xe0 | (code >> 12));
        text[1] = static_cast<char>(0x80 | ((code >> 6) & 0x3f));
        text[2] = static_cast<char>(0x80 | (code & 0x3f));
        n = 3;
      } else {
        text[0] = static_cast<char>(0xf0 | (code >> 18));
        text[1] = static_cast<char>(0x80 | ((code >> 12) & 0x3f));
        text[2] = static_cast<char>(0x80 | ((code >> 6) & 0x3f));
        text[3] = static_cast<char>(0x80 | (code & 0x3f));
        n = 4;
      }
    } else {
      text[0] = static_cast<char>(static_cast<unsigned char>(code));
    }
    Spec s = spec;
    s.precision = -1;
    pad(s, std::string_view(text, n));
  }

  void formatText(const Spec& spec, const FormatArg* a) {
    if (!a) {
      pad(spec, "(null)");
      return;
    }
    switch (a->type) {
      case FormatArg::Type::CString:
        pad(spec, a->s ? std::string_view(a->s) : std::string_view("(null)"));
        return;
      case FormatArg::Type::Value:
        if (a->v->isString()) {
          pad(spec, a->v->stringValue());
        } else {
          pad(spec, a->v->description().view());
        }
        return;
      case FormatArg::Type::Signed:
        pad(spec, PXValue(static_cast<long long>(a->i)).description().view());
        return;
      case FormatArg::Type::Unsigned:
        pad(spec, PXValue(static_cast<unsigned long long>(a->u)).description().view());
        return;
      case FormatArg::Type::Double:
        pad(spec, PXValue(a->d).description().view());
        return;
      case FormatArg::Type::Pointer: {
        char text[32];
        int n = std::snprintf(text, sizeof text, "%p", a->p);
        pad(spec, std::string_view(text, n > 0 ? static_cast<size_t>(n) : 0));
        return;
      }
    }
  }

  std::string& out_;
  std::span<const FormatArg> args_;
  size_t next_ = 0;
};

}  // namespace

namespace pxkit::internal {

std::string formatArgs(const char* format, std::span<const FormatArg> args) {
  std::string out;
  if (!format) return out;
  Formatter(out, args).run(format);
  return out;
}

}  // namespace pxkit::internal
