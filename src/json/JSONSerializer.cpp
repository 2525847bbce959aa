#include <pxkit/json/JSONSerializer.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXFormat.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "json/internal/JSONMessages.h"
#include "json/internal/JSONNumbers.h"
#include "json/internal/JSONText.h"

using namespace pxkit::json::internal;

JSONSerializerDelegate::~JSONSerializerDelegate() = default;

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

// The output: a growable byte buffer written through a cursor. Room is made in
// chunks before each write, so the writes themselves are plain stores. It grows
// with realloc (large blocks move without copying) and is never zero-filled; the
// result object gets one copy at the end.
class Output {
 public:
  Output() = default;
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  ~Output() { std::free(bytes_); }

  // At least `n` writable bytes at the returned cursor; finish with commit().
  char* reserve(size_t n) {
    if (capacity_ - used_ < n) grow(n);
    return bytes_ + used_;
  }
  void commit(char* end) { used_ = static_cast<size_t>(end - bytes_); }
  void put(char c) {
    char* p = reserve(1);
    *p = c;
    commit(p + 1);
  }
  void append(const void* data, size_t n) {
    char* p = reserve(n);
    std::memcpy(p, data, n);
    commit(p + n);
  }

  std::string_view view() const { return {bytes_ ? bytes_ : "", used_}; }

 private:
  static constexpr size_t kInitialSize = 4096;
  void grow(size_t n) {
    size_t capacity = capacity_ ? capacity_ * 2 : kInitialSize;
    while (capacity - used_ < n) capacity *= 2;
    void* grown = std::realloc(bytes_, capacity);
    if (!grown) throw std::bad_alloc();
    bytes_ = static_cast<char*>(grown);
    capacity_ = capacity;
  }
  char* bytes_ = nullptr;
  size_t capacity_ = 0;
  size_t used_ = 0;
};

// Who turns unsupported values into supported ones, if anyone.
struct Formatter {
  JSONSerializerDelegate* delegate = nullptr;
  const char* selector = nullptr;
  const JSONUnsupportedClassFormatter* block = nullptr;

  bool present() const { return delegate != nullptr || (block != nullptr && *block); }
  PXValue format(const PXValue& value) const {
    if (delegate) return delegate->performSelector(selector, value);
    return (*block)(value);
  }
};

// Values the serializer writes itself (the top of a formatter's result is checked against this).
bool isSupported(const PXValue& value) {
  switch (value.kind()) {
    case PXValue::Kind::Null:
    case PXValue::Kind::Bool:
    case PXValue::Kind::Int:
    case PXValue::Kind::UInt:
    case PXValue::Kind::Double:
    case PXValue::Kind::String:
      return true;
    case PXValue::Kind::Object: {
      const PXObjectTag tag = value.objectPointer()->objectTag();
      return tag == PXObjectTag::Array || tag == PXObjectTag::Dictionary;
    }
    default:
      return false;
  }
}

class Serializer {
 public:
  Serializer(JSONSerializeOptionFlags options, Formatter formatter)
      : pretty_((options & kPXJSONSerializeOptionPretty) != 0),
        escapeUnicode_((options & kPXJSONSerializeOptionEscapeUnicode) != 0),
        formatter_(formatter) {}

  bool writeValue(const PXValue& value, size_t depth) {
    switch (value.kind()) {
      case PXValue::Kind::Null:
        out_.append("null", 4);
        return true;
      case PXValue::Kind::Bool:
        if (value.boolValue()) {
          out_.append("true", 4);
        } else {
          out_.append("false", 5);
        }
        return true;
      case PXValue::Kind::Int: {
        char* p = out_.reserve(kMaxIntegerChars);
        out_.commit(writeInt64(value.longLongValue(), p));
        return true;
      }
      case PXValue::Kind::UInt: {
        char* p = out_.reserve(kMaxIntegerChars);
        out_.commit(writeUInt64(value.unsignedLongLongValue(), p));
        return true;
      }
      case PXValue::Kind::Double: {
        const double d = value.doubleValue();
        if (!std::isfinite(d)) return fail(kMessageNotFinite);
        char* p = out_.reserve(kMaxDoubleChars);
        out_.commit(writeDouble(d, p));
        return true;
      }
      case PXValue::Kind::String:
        writeString(value.stringValue(), /*quotes=*/true);
        return true;
      case PXValue::Kind::Object: {
        const PXObject* object = value.objectPointer();
        if (object->objectTag() == PXObjectTag::Array) {
          return writeArray(static_cast<const PXArray&>(*object), depth + 1);
        }
        if (object->objectTag() == PXObjectTag::Dictionary) {
          return writeDictionary(static_cast<const PXDictionary&>(*object), depth + 1);
        }
        return writeUnsupported(value, depth);
      }
      default:
        return writeUnsupported(value, depth);
    }
  }

  // The string's escaped text, with or without the quotes. Room for the worst
  // case is made once (every byte a six-byte escape, plus a block's slack), then
  // plain ASCII is copied sixteen bytes at a time while it is scanned.
  void writeString(std::string_view text, bool quotes) {
    const auto* p = reinterpret_cast<const uint8_t*>(text.data());
    const uint8_t* const end = p + text.size();
    char* w = out_.reserve(text.size() * 6 + 2 + 16);
    if (quotes) *w++ = '"';
    for (;;) {
#if defined(__SSE2__)
      const __m128i quote = _mm_set1_epi8('"');
      const __m128i backslash = _mm_set1_epi8('\\');
      const __m128i controlLimit = _mm_set1_epi8(0x1F);
      while (end - p >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(w), v);
        const __m128i special =
            _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, backslash)),
                         _mm_cmpeq_epi8(_mm_max_epu8(v, controlLimit), controlLimit));
        const unsigned mask =
            static_cast<unsigned>(_mm_movemask_epi8(special)) | static_cast<unsigned>(_mm_movemask_epi8(v));
        if (mask != 0) {
          const unsigned n = static_cast<unsigned>(__builtin_ctz(mask));
          p += n;
          w += n;
          break;
        }
        p += 16;
        w += 16;
      }
#endif
      while (p < end && kPlainStringBytes.table[*p]) *w++ = static_cast<char>(*p++);
      if (p >= end) break;
      const uint8_t c = *p;
      if (c >= 0x80) {
        if (!escapeUnicode_) {
          const uint8_t* after = skipValidUTF8(p, end);
          if (after != p) {
            std::memcpy(w, p, static_cast<size_t>(after - p));
            w += after - p;
            p = after;
            continue;
          }
          std::memcpy(w, "\xEF\xBF\xBD", 3);  // ill-formed bytes are written as U+FFFD
          w += 3;
          p += decodeUTF8(p, end).length;
          continue;
        }
        const UTF8Sequence seq = decodeUTF8(p, end);
        w = writeUnicodeEscape(seq.status == UTF8Status::Ok ? seq.codePoint : kReplacementCharacter, w);
        p += seq.length;
        continue;
      }
      *w++ = '\\';
      switch (c) {
        case '"':
          *w++ = '"';
          break;
        case '\\':
          *w++ = '\\';
          break;
        case '\b':
          *w++ = 'b';
          break;
        case '\f':
          *w++ = 'f';
          break;
        case '\n':
          *w++ = 'n';
          break;
        case '\r':
          *w++ = 'r';
          break;
        case '\t':
          *w++ = 't';
          break;
        default:  // other control characters: "\u%4.4x"
          *w++ = 'u';
          *w++ = '0';
          *w++ = '0';
          *w++ = kHexDigits[c >> 4];
          *w++ = kHexDigits[c & 0xF];
          break;
      }
      ++p;
    }
    if (quotes) *w++ = '"';
    out_.commit(w);
  }

  Output& output() {
    return out_;
  }
  const PXString& message() const {
    return message_;
  }
  bool fail(PXString message) {
    if (message_.isAbsent()) message_ = std::move(message);
    return false;
  }

 private:
  // "\u%4.4x", or "\u%4.4x\u%4.4x" for a character outside the Basic Multilingual
  // Plane (at most 12 bytes, within the room writeString made).
  static char* writeUnicodeEscape(uint32_t cp, char* w) {
    auto unit = [&w](uint32_t u) {
      *w++ = '\\';
      *w++ = 'u';
      for (int shift = 12; shift >= 0; shift -= 4) *w++ = kHexDigits[(u >> shift) & 0xF];
    };
    if (cp >= 0x10000) {
      cp -= 0x10000;
      unit(0xD800 + (cp >> 10));
      unit(0xDC00 + (cp & 0x3FF));
    } else {
      unit(cp);
    }
    return w;
  }

  void newline(size_t depth) {
    static constexpr char kSpaces[] = "                ";  // sixteen
    const size_t width = depth * 2;
    char* w = out_.reserve(width + 1 + 16);
    *w++ = '\n';
    for (size_t i = 0; i < width; i += 16) std::memcpy(w + i, kSpaces, 16);  // may write past: slack
    out_.commit(w + width);
  }

  bool checkDepth(size_t depth) {
    if (depth <= kPXJSONMaxDepth) return true;
    return fail(PXFormat(kMessageTooDeep, static_cast<unsigned long>(kPXJSONMaxDepth)));
  }

  // A large array's elements are objects scattered over the heap (a store of
  // papercuts: thousands of small dictionaries, their entries kept with each
  // object): their lines are asked for a few elements ahead, so that the
  // cache misses overlap instead of coming one after another.
  static constexpr size_t kPrefetchDistance = 8;
  static constexpr size_t kPrefetchLines = 4;
  static void prefetchObject(const PXValue& value) noexcept {
    if (const PXObject* object = value.objectPointer()) {
      const char* line = reinterpret_cast<const char*>(object);
      for (size_t i = 0; i < kPrefetchLines; ++i) __builtin_prefetch(line + 64 * i, 0);
    }
  }

  bool writeArray(const PXArray& array, size_t depth) {
    if (!checkDepth(depth)) return false;
    const std::span<const PXValue> values = array.values();
    out_.put('[');
    for (size_t i = 0; i < kPrefetchDistance && i < values.size(); ++i) prefetchObject(values[i]);
    bool first = true;
    for (size_t i = 0; i < values.size(); ++i) {
      const PXValue& value = values[i];
      if (i + kPrefetchDistance < values.size()) prefetchObject(values[i + kPrefetchDistance]);
      if (!first) out_.put(',');
      first = false;
      if (pretty_) newline(depth);
      if (!writeValue(value, depth)) return false;
    }
    if (pretty_ && !values.empty()) newline(depth - 1);
    out_.put(']');
    return true;
  }

  bool writeDictionary(const PXDictionary& dictionary, size_t depth) {
    if (!checkDepth(depth)) return false;
    out_.put('{');
    bool first = true;
    for (const PXDictionary::Entry& entry : dictionary.entries()) {
      if (!first) out_.put(',');
      first = false;
      if (pretty_) newline(depth);
      if (!entry.first.isString()) return fail(kMessageKeyNotString);
      writeString(entry.first.stringValue(), /*quotes=*/true);
      if (pretty_) {
        out_.append(": ", 2);
      } else {
        out_.put(':');
      }
      if (!writeValue(entry.second, depth)) return false;
    }
    if (pretty_ && dictionary.count() != 0) newline(depth - 1);
    out_.put('}');
    return true;
  }

  bool writeUnsupported(const PXValue& value, size_t depth) {
    if (!formatter_.present()) return fail(PXFormat(kMessageUnsupportedClass, value.className()));
    const PXValue replacement = formatter_.format(value);
    if (!isSupported(replacement)) {
      return fail(PXFormat(kMessageUnsupportedFormatterResult, replacement.className(), value.className()));
    }
    return writeValue(replacement, depth);
  }

  Output out_;
  const bool pretty_;
  const bool escapeUnicode_;
  const Formatter formatter_;
  PXString message_;
};

PXErrorRef makeError(const PXString& message) {
  return PXError::errorWithDomain(kPXJSONErrorDomain, -1, message);
}

// Checks the arguments and writes `object`; false with `message` set on failure.
bool run(Serializer& serializer, const PXValue& object, const Formatter& formatter, bool collectionEntry,
         bool includeQuotes, PXString& message) {
  if (formatter.delegate) {
    if (!formatter.selector) {
      message = kMessageDelegateWithoutSelector;
      return false;
    }
    if (!formatter.delegate->respondsToSelector(formatter.selector)) {
      message = kMessageDelegateDoesNotRespond;
      return false;
    }
  }
  if (collectionEntry && !object.isArray() && !object.isDictionary()) {
    message = PXFormat(kMessageExpectedCollection, object.className());
    return false;
  }
  if (!collectionEntry && !object.isString()) {
    message = PXFormat(kMessageExpectedString, object.className());
    return false;
  }
  try {
    if (!collectionEntry) {
      serializer.writeString(object.stringValue(), includeQuotes);
      return true;
    }
    if (serializer.writeValue(object, 0)) return true;
  } catch (const std::bad_alloc&) {
    serializer.fail(kMessageTemporaryBufferMemory);
  }
  message = serializer.message();
  return false;
}

PXRef<PXData> serializeToData(const PXValue& object, JSONSerializeOptionFlags options,
                              const Formatter& formatter, bool collectionEntry, bool includeQuotes,
                              PXErrorRef* error) {
  PXString message;
  try {
    Serializer serializer(options, formatter);
    if (run(serializer, object, formatter, collectionEntry, includeQuotes, message)) {
      try {
        return PXData::dataWithBytes(serializer.output().view().data(), serializer.output().view().size());
      } catch (const std::bad_alloc&) {
        message = kMessageDataObjectMemory;
      }
    }
  } catch (const std::bad_alloc&) {
    message = kMessageTemporaryBufferMemory;
  }
  PXSetError(error, makeError(message));
  return {};
}

PXString serializeToString(const PXValue& object, JSONSerializeOptionFlags options,
                           const Formatter& formatter, bool collectionEntry, bool includeQuotes,
                           PXErrorRef* error) {
  PXString message;
  try {
    Serializer serializer(options, formatter);
    if (run(serializer, object, formatter, collectionEntry, includeQuotes, message)) {
      try {
        return PXString(serializer.output().view());
      } catch (const std::bad_alloc&) {
        message = kMessageStringObjectMemory;
      }
    }
  } catch (const std::bad_alloc&) {
    message = kMessageTemporaryBufferMemory;
  }
  PXSetError(error, makeError(message));
  return {};
}

}  // namespace

PXRef<PXData> JSONDataWithOptions(const PXValue& collection, JSONSerializeOptionFlags serializeOptions,
                                  PXErrorRef* error) {
  return serializeToData(collection, serializeOptions, Formatter{}, true, true, error);
}

PXString JSONStringWithOptions(const PXValue& collection, JSONSerializeOptionFlags serializeOptions,
                               PXErrorRef* error) {
  return serializeToString(collection, serializeOptions, Formatter{}, true, true, error);
}

PXRef<PXData> JSONData(const PXValue& collection) {
  return JSONDataWithOptions(collection, 0, nullptr);
}

PXString JSONString(const PXValue& collection) {
  return JSONStringWithOptions(collection, 0, nullptr);
}

PXRef<PXData> JSONDataWithOptions(const PXValue& collection, JSONSerializeOptionFlags serializeOptions,
                                  JSONSerializerDelegate* delegate, const char* selector, PXErrorRef* error) {
  return serializeToData(collection, serializeOptions, Formatter{delegate, selector, nullptr}, true, true,
                         error);
}

PXString JSONStringWithOptions(const PXValue& collection, JSONSerializeOptionFlags serializeOptions,
                               JSONSerializerDelegate* delegate, const char* selector, PXErrorRef* error) {
  return serializeToString(collection, serializeOptions, Formatter{delegate, selector, nullptr}, true, true,
                           error);
}

PXRef<PXData> JSONDataWithOptions(const PXValue& collection, JSONSerializeOptionFlags serializeOptions,
                                  const JSONUnsupportedClassFormatter& block, PXErrorRef* error) {
  return serializeToData(collection, serializeOptions, Formatter{nullptr, nullptr, &block}, true, true,
                         error);
}

PXString JSONStringWithOptions(const PXValue& collection, JSONSerializeOptionFlags serializeOptions,
                               const JSONUnsupportedClassFormatter& block, PXErrorRef* error) {
  return serializeToString(collection, serializeOptions, Formatter{nullptr, nullptr, &block}, true, true,
                           error);
}

PXRef<PXData> JSONDataWithOptionsIncludeQuotes(const PXValue& string,
                                               JSONSerializeOptionFlags serializeOptions, bool includeQuotes,
                                               PXErrorRef* error) {
  return serializeToData(string, serializeOptions, Formatter{}, false, includeQuotes, error);
}

PXString JSONStringWithOptionsIncludeQuotes(const PXValue& string, JSONSerializeOptionFlags serializeOptions,
                                            bool includeQuotes, PXErrorRef* error) {
  return serializeToString(string, serializeOptions, Formatter{}, false, includeQuotes, error);
}
