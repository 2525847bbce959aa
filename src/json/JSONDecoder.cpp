#include <pxkit/json/JSONDecoder.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXFormat.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <tuple>
#include <vector>

#include "json/internal/JSONContainers.h"
#include "json/internal/JSONMessages.h"
#include "json/internal/JSONNumbers.h"
#include "json/internal/JSONText.h"

namespace pxkit::json::internal {

// Long strings seen recently, so that equal strings share one allocation.
// Direct-mapped: a new string simply takes its slot.
struct StringCache {
  static constexpr size_t kSlots = 1024;
  static constexpr size_t kMinLength = 15;   // shorter strings live inside the value, no allocation
  static constexpr size_t kMaxLength = 128;  // longer ones rarely repeat
  struct Slot {
    uint64_t hash = 0;
    PXString string;
  };
  Slot slots[kSlots];
};

// What a decoder keeps between documents: the stacks of open containers, the
// buffer for unescaped strings, the duplicate-key table and the string cache.
// Capacities persist, so a decoder that reads many documents stops allocating
// for its own bookkeeping.
struct DecoderState {
  std::vector<PXValue> values;               // elements of the open arrays, innermost last
  std::vector<PXDictionary::Entry> entries;  // entries of the open dictionaries
  std::vector<uint64_t> keyHashes;           // one per entry
  std::string scratch;                       // a string being unescaped
  std::vector<uint32_t> keyTable;            // open addressing over one dictionary's keys
  std::unique_ptr<StringCache> cache;        // made on the first long string

  void reset() noexcept {
    values.clear();
    entries.clear();
    keyHashes.clear();
  }
};

namespace {

bool isDigit(uint8_t c) {
  return static_cast<uint8_t>(c - '0') < 10;
}

bool isValueStart(uint8_t c) {
  switch (c) {
    case '"':
    case '-':
    case '0':
    case '1':
    case '2':
    case '3':
    case '4':
    case '5':
    case '6':
    case '7':
    case '8':
    case '9':
    case 't':
    case 'f':
    case 'n':
    case '[':
    case '{':
      return true;
    default:
      return false;
  }
}

// Line breaks before `index`: LF, CR, CR LF as one, and with the Unicode option
// NEL, LS and PS.
size_t lineNumberAt(const uint8_t* begin, const uint8_t* end, size_t index, bool unicodeNewlines) {
  size_t line = 1;
  const uint8_t* stop = begin + index;
  for (const uint8_t* p = begin; p < stop; ++p) {
    const uint8_t c = *p;
    if (c == '\n') {
      ++line;
    } else if (c == '\r') {
      ++line;
      if (p + 1 < end && p[1] == '\n') ++p;
    } else if (unicodeNewlines && c == 0xC2 && p + 1 < end && p[1] == 0x85) {
      ++line;
      ++p;
    } else if (unicodeNewlines && c == 0xE2 && p + 2 < end && p[1] == 0x80 &&
               (p[2] == 0xA8 || p[2] == 0xA9)) {
      ++line;
      p += 2;
    }
  }
  return line;
}

// A scanned string: its bytes (in the input, or in the scratch buffer when it
// had escapes) and where it started.
struct StringToken {
  const uint8_t* data;
  size_t length;
};

template <bool Mutable>
class Parser {
 public:
  Parser(DecoderState& state, const uint8_t* bytes, size_t length, JSONParseOptionFlags options)
      : st_(state),
        begin_(bytes),
        p_(bytes),
        end_(bytes + length),
        comments_((options & kPXJSONParseOptionComments) != 0),
        unicodeNewlines_((options & kPXJSONParseOptionUnicodeNewlines) != 0),
        looseUnicode_((options & kPXJSONParseOptionLooseUnicode) != 0),
        permitTrailingText_((options & kPXJSONParseOptionPermitTextAfterValidJSON) != 0),
        plainWhitespaceOnly_(!comments_ && !unicodeNewlines_) {}

  // The document's value, or absent with message() and errorIndex() set.
  PXValue parseDocument() {
    PXValue result;
    try {
      parseTopLevel(result);
    } catch (const std::bad_alloc&) {
      fail(kMessageObjectsArrayMemory, p_);  // unless a more specific failure came first
    }
    if (failed_) {
      st_.reset();
      return PXValue();
    }
    return result;
  }

  const PXString& message() const noexcept { return message_; }
  size_t errorIndex() const noexcept { return errorIndex_; }

 private:
  using Entry = PXDictionary::Entry;

  // ---- Failures ------------------------------------------------------------
  // The first failure wins; everything after it only unwinds.
  bool fail(PXString message, const uint8_t* at) {
    if (!failed_) {
      failed_ = true;
      message_ = std::move(message);
      errorIndex_ = static_cast<size_t>(at - begin_);
    }
    return false;
  }
  bool failEndOfBuffer() { return fail(kMessageEndOfBuffer, end_); }
  bool failExpected(unsigned accepted, const char* valueWord, const char* endWord, const uint8_t* at,
                    size_t length) {
    return fail(composeExpectedMessage(accepted, valueWord, endWord,
                                       std::string_view(reinterpret_cast<const char*>(at), length)),
                at);
  }

  // ---- White space ---------------------------------------------------------
  // Inline for the common cases: the next byte already starts a token, or one
  // space stands before it (as after a colon in indented documents).
  void skipWhitespace() {
    if (p_ < end_) {
      const uint8_t c = *p_;
      if (c > ' ') {
        if (plainWhitespaceOnly_ || (c != '/' && c < 0x80)) return;
      } else if (c == ' ' && end_ - p_ > 1) {
        const uint8_t next = p_[1];
        if (next > ' ' && (plainWhitespaceOnly_ || (next != '/' && next < 0x80))) {
          ++p_;
          return;
        }
      }
    }
    skipWhitespaceRun();
  }

  [[gnu::noinline]] void skipWhitespaceRun() {
    p_ = skipPlainWhitespace(p_, end_);
    if (plainWhitespaceOnly_) return;
    while (p_ < end_ && (*p_ == '/' || *p_ >= 0x80) && skipExtendedWhitespace()) {
      p_ = skipPlainWhitespace(p_, end_);
    }
  }

  // Comments and Unicode line breaks; false when `p_` is at neither.
  bool skipExtendedWhitespace() {
    const uint8_t c = *p_;
    if (c == '/' && comments_ && p_ + 1 < end_) {
      if (p_[1] == '/') {
        p_ += 2;
        while (p_ < end_ && !atLineBreak()) ++p_;
        return true;
      }
      if (p_[1] == '*') {
        const uint8_t* open = p_;
        for (p_ += 2; p_ + 1 < end_; ++p_) {
          if (p_[0] == '*' && p_[1] == '/') {
            p_ += 2;
            return true;
          }
        }
        // An unterminated comment: the input ends inside it.
        p_ = end_;
        fail(kMessageEndOfBuffer, open);
        return false;
      }
      return false;
    }
    if (unicodeNewlines_) {
      if (const size_t n = unicodeLineBreakLength(p_)) {
        p_ += n;
        return true;
      }
    }
    return false;
  }

  size_t unicodeLineBreakLength(const uint8_t* p) const {
    if (p[0] == 0xC2 && p + 1 < end_ && p[1] == 0x85) return 2;
    if (p[0] == 0xE2 && p + 2 < end_ && p[1] == 0x80 && (p[2] == 0xA8 || p[2] == 0xA9)) return 3;
    return 0;
  }

  bool atLineBreak() const {
    return *p_ == '\n' || *p_ == '\r' || (unicodeNewlines_ && unicodeLineBreakLength(p_) != 0);
  }

  // ---- Document ------------------------------------------------------------
  void parseTopLevel(PXValue& result) {
    skipWhitespace();
    if (failed_) return;
    if (p_ >= end_) {
      failEndOfBuffer();
      return;
    }
    bool ok;
    const Place top{Place::Result, 0, &result};
    if (*p_ == '[') {
      ok = parseArray(1, top);
    } else if (*p_ == '{') {
      ok = parseObject(1, top);
    } else {
      fail(kMessageExpectedContainer, p_);
      return;
    }
    if (!ok || permitTrailingText_) return;
    skipWhitespace();
    if (!failed_ && p_ < end_) fail(kMessageTrailingText, p_);
  }

  // ---- Places --------------------------------------------------------------
  // Where a parsed value goes. Values are constructed in the slot they keep until
  // their container is built (an array's stack, a dictionary entry, the result),
  // never in a temporary that is then copied: the value constructors write their
  // bytes piecemeal, and reading them back at once right after stalls the CPU.
  struct Place {
    enum Mode : uint8_t { ArrayElement, DictionaryValue, Result } mode;
    size_t index;     // the entry, for DictionaryValue
    PXValue* result;  // for Result
  };

  template <class... Args>
  [[gnu::always_inline]] void construct(const Place& place, Args&&... args) {
    switch (place.mode) {
      case Place::ArrayElement:
        st_.values.emplace_back(std::forward<Args>(args)...);
        return;
      case Place::DictionaryValue:
        constructAt(&st_.entries[place.index].second, std::forward<Args>(args)...);  // absent until now
        return;
      case Place::Result:
        constructAt(place.result, std::forward<Args>(args)...);
        return;
    }
  }

  // Replaces the absent value in `slot`; if making the new one throws (out of
  // memory), the slot holds an absent value again.
  template <class... Args>
  static void constructAt(PXValue* slot, Args&&... args) {
    slot->~PXValue();
    try {
      new (slot) PXValue(std::forward<Args>(args)...);
    } catch (...) {
      new (slot) PXValue();
      throw;
    }
  }

  // ---- Containers ----------------------------------------------------------
  bool parseArray(size_t depth, const Place& place) {
    if (depth > kPXJSONMaxDepth) return fail(kMessageUnableToParse, p_);
    ++p_;  // '['
    const size_t base = st_.values.size();
    unsigned state = kAcceptValue | kAcceptEnd;
    for (;;) {
      skipWhitespace();
      if (p_ >= end_) return failEndOfBuffer();
      const uint8_t c = *p_;
      if (c == ']') {
        if (!(state & kAcceptEnd)) return fail(kMessageUnexpectedArrayEnd, p_);
        ++p_;
        finishArray(base, place);
        return true;
      }
      if (c == ',') {
        if (!(state & kAcceptComma)) return fail(kMessageUnexpectedComma, p_);
        ++p_;
        state = kAcceptValue;
        continue;
      }
      if (c == '}' || c == ':') return failExpected(state, kWordValue, kWordArrayEnd, p_, 1);
      if (!isValueStart(c)) return fail(kMessageUnexpectedToken, p_);
      if (!(state & kAcceptValue)) return fail(kMessageUnexpectedValue, p_);
      if (!parseValue(c, depth, Place{Place::ArrayElement, 0, nullptr})) return false;
      state = kAcceptComma | kAcceptEnd;
    }
  }

  void finishArray(size_t base, const Place& place) {
    std::vector<PXValue>& values = st_.values;
    if (values.size() == base) {
      if constexpr (Mutable) {
        construct(place, PXValue::adoptObject(new PXMutableArray()));
      } else {
        if (!emptyArray_) emptyArray_ = PXValue(PXArray::array());
        construct(place, emptyArray_);  // one shared empty array: a copy is one count
      }
      return;
    }
    // One allocation: the elements are kept with the array object. The stack
    // is cut back before the array takes its place, which may be on it.
    const std::span<PXValue> items(values.data() + base, values.size() - base);
    PXArray* array;
    if constexpr (Mutable) {
      array = PXMutableArray::arrayByTakingValues(items).detach();
    } else {
      array = PXArray::arrayByTakingValues(items).detach();
    }
    values.erase(values.begin() + static_cast<ptrdiff_t>(base), values.end());
    construct(place, PXValue::adoptObject(array));
  }

  bool parseObject(size_t depth, const Place& place) {
    if (depth > kPXJSONMaxDepth) return fail(kMessageUnableToParse, p_);
    ++p_;  // '{'
    const size_t base = st_.entries.size();
    unsigned state = kAcceptValue | kAcceptEnd;
    for (;;) {
      skipWhitespace();
      if (p_ >= end_) return failEndOfBuffer();
      uint8_t c = *p_;
      if (c == '"') {
        if (!(state & kAcceptValue)) return fail(kMessageUnexpectedString, p_);
        StringToken key;
        if (!scanString(key)) return false;
        const uint64_t hash = hashBytes(key.data, key.length);
        // The key goes in first (before the value reuses the scratch buffer), the
        // value into its entry once read.
        const size_t index = st_.entries.size();
        emplaceKey(key, hash);
        skipWhitespace();
        if (p_ >= end_) return failEndOfBuffer();
        if (*p_ != ':') return fail(kMessageExpectedColon, p_);
        ++p_;
        skipWhitespace();
        if (p_ >= end_) return failEndOfBuffer();
        c = *p_;
        if (!isValueStart(c)) {
          if (c == '}' || c == ']' || c == ',' || c == ':')
            return failExpected(kAcceptValue, kWordValue, "", p_, 1);
          return fail(kMessageUnexpectedToken, p_);
        }
        if (!parseValue(c, depth, Place{Place::DictionaryValue, index, nullptr})) return false;
        state = kAcceptComma | kAcceptEnd;
        continue;
      }
      if (c == '}') {
        if (!(state & kAcceptEnd)) return fail(kMessageUnexpectedObjectEnd, p_);
        ++p_;
        finishObject(base, place);
        return true;
      }
      if (c == ',') {
        if (!(state & kAcceptComma)) return fail(kMessageUnexpectedComma, p_);
        ++p_;
        state = kAcceptValue;
        continue;
      }
      // Any other token where a key, a comma or the end belongs.
      size_t length = 1;
      if (c == '-' || isDigit(c)) {
        if (!scanNumberSyntax(length)) return false;
      } else if (c == 't' || c == 'f' || c == 'n') {
        if (!matchLiteral(c, length)) return false;
      } else if (c != '[' && c != '{' && c != ']' && c != ':') {
        return fail(kMessageUnexpectedToken, p_);
      }
      return failExpected(state, kWordString, kWordObjectEnd, p_, length);
    }
  }

  void finishObject(size_t base, const Place& place) {
    std::vector<Entry>& entries = st_.entries;
    const size_t count = entries.size() - base;
    if (count == 0) {
      if constexpr (Mutable) {
        construct(place, PXValue::adoptObject(new PXMutableDictionary()));
      } else {
        if (!emptyDictionary_) emptyDictionary_ = PXValue(PXDictionary::dictionary());
        construct(place, emptyDictionary_);
      }
      return;
    }
    if (count > 1) removeRepeatedKeys(base, count);
    // One allocation: the entries are kept with the dictionary object.
    const std::span<Entry> items(entries.data() + base, entries.size() - base);
    PXDictionary* dictionary;
    if constexpr (Mutable) {
      dictionary = ParsedMutableDictionary::dictionaryByTakingTrustedEntries(items).detach();
    } else {
      dictionary = ParsedDictionary::dictionaryByTakingTrustedEntries(items).detach();
    }
    entries.erase(entries.begin() + static_cast<ptrdiff_t>(base), entries.end());
    st_.keyHashes.resize(base);
    construct(place, PXValue::adoptObject(dictionary));
  }

  // A repeated key keeps its first place and takes the last value; the later
  // entries are dropped. Small dictionaries compare hashes pairwise, large ones
  // go through an open-addressing table.
  void removeRepeatedKeys(size_t base, size_t count) {
    Entry* entries = st_.entries.data() + base;
    const uint64_t* hashes = st_.keyHashes.data() + base;
    bool repeated = false;
    auto merge = [&](size_t first, size_t later) {
      entries[first].second = std::move(entries[later].second);
      entries[later].first = PXValue();  // marks the entry for removal
      repeated = true;
    };
    auto sameKey = [&](size_t a, size_t b) {
      return hashes[a] == hashes[b] && entries[a].first.stringValue() == entries[b].first.stringValue();
    };
    if (count <= 16) {
      for (size_t i = 1; i < count; ++i) {
        for (size_t j = 0; j < i; ++j) {
          if (!entries[j].first.isAbsent() && sameKey(j, i)) {
            merge(j, i);
            break;
          }
        }
      }
    } else {
      size_t capacity = 32;
      while (capacity < count * 2) capacity *= 2;
      std::vector<uint32_t>& table = st_.keyTable;
      try {
        table.assign(capacity, 0);
      } catch (const std::bad_alloc&) {
        fail(kMessageHashTableMemory, p_);
        throw;
      }
      const size_t mask = capacity - 1;
      for (size_t i = 0; i < count; ++i) {
        for (size_t slot = hashes[i] & mask;; slot = (slot + 1) & mask) {
          const uint32_t occupant = table[slot];
          if (occupant == 0) {
            table[slot] = static_cast<uint32_t>(i + 1);
            break;
          }
          if (sameKey(occupant - 1, i)) {
            merge(occupant - 1, i);
            break;
          }
        }
      }
    }
    if (!repeated) return;
    auto first = st_.entries.begin() + static_cast<ptrdiff_t>(base);
    auto kept = std::remove_if(first, st_.entries.end(), [](const Entry& e) { return e.first.isAbsent(); });
    st_.entries.erase(kept, st_.entries.end());
  }

  // ---- Values --------------------------------------------------------------
  bool parseValue(uint8_t c, size_t depth, const Place& place) {
    switch (c) {
      case '"': {
        StringToken s;
        if (!scanString(s)) return false;
        const std::string_view text(reinterpret_cast<const char*>(s.data), s.length);
        if (const PXString* shared = sharedString(s)) {
          construct(place, *shared);
        } else {
          construct(place, text);
        }
        return true;
      }
      case '[':
        return parseArray(depth + 1, place);
      case '{':
        return parseObject(depth + 1, place);
      case 't':
      case 'f':
      case 'n': {
        size_t length;
        if (!matchLiteral(c, length)) return false;
        p_ += length;
        if (c == 'n') {
          construct(place, PXValue::null());
        } else {
          construct(place, c == 't');
        }
        return true;
      }
      default:
        return parseNumber(place);
    }
  }

  // "true", "false" or "null" at p_ (not consumed): its length, or a failure.
  bool matchLiteral(uint8_t c, size_t& length) {
    const char* word = c == 't' ? "true" : c == 'f' ? "false" : "null";
    length = c == 'f' ? 5 : 4;
    const size_t available = static_cast<size_t>(end_ - p_);
    if (available >= length && std::memcmp(p_, word, length) == 0) return true;
    if (available < length && std::memcmp(p_, word, available) == 0) return failEndOfBuffer();
    return fail(kMessageUnexpectedToken, p_);
  }

  // The cached string with these bytes, for strings long enough to need an
  // allocation (and short enough to repeat); null for the others.
  const PXString* sharedString(const StringToken& s, uint64_t hash = 0) {
    if (s.length < StringCache::kMinLength || s.length > StringCache::kMaxLength) return nullptr;
    if (hash == 0) hash = hashBytes(s.data, s.length);
    const std::string_view text(reinterpret_cast<const char*>(s.data), s.length);
    if (!st_.cache) st_.cache = std::make_unique<StringCache>();
    StringCache::Slot& slot = st_.cache->slots[hash & (StringCache::kSlots - 1)];
    if (slot.hash != hash || slot.string.view() != text) {
      slot.hash = hash;
      slot.string = PXString(text);
    }
    return &slot.string;
  }

  // A dictionary entry with this key and, for now, no value.
  void emplaceKey(const StringToken& key, uint64_t hash) {
    if (const PXString* shared = sharedString(key, hash)) {
      st_.entries.emplace_back(std::piecewise_construct, std::forward_as_tuple(*shared),
                               std::forward_as_tuple());
    } else {
      st_.entries.emplace_back(
          std::piecewise_construct,
          std::forward_as_tuple(std::string_view(reinterpret_cast<const char*>(key.data), key.length)),
          std::forward_as_tuple());
    }
    st_.keyHashes.push_back(hash);
  }

  // ---- Numbers -------------------------------------------------------------
  // One number token at p_, read once: its syntax is checked (-?(0|[1-9][0-9]*)
  // (.[0-9]+)?([eE][+-]?[0-9]+)?, no digit after a leading zero) while its digits
  // are gathered as a decimal significand and exponent.
  struct NumberScan {
    size_t length = 0;
    bool negative = false;
    bool isFloat = false;
    uint64_t significand = 0;  // exact when digits <= 19
    int digits = 0;            // significant digits (leading zeros not counted)
    int exponent = 0;          // decimal exponent of the significand's last digit
  };

  // Reads the run of digits at `q` (at least one) into the significand `w`,
  // eight at a time where it can. Leading zeros are not significant digits; past
  // 19 digits `w` is no longer exact and `digits` says so. With `exponent`
  // (fraction digits), each digit also moves the decimal exponent down.
  static void readDigits(const uint8_t*& q, const uint8_t* end, uint64_t& w, int& digits, int* exponent) {
    while (end - q >= 8 && (w != 0 || *q != '0')) {  // leading zeros: one at a time, below
      uint64_t chunk;
      std::memcpy(&chunk, q, 8);
      const int count = leadingDigitCount(chunk);
      if (count == 0) return;
      if (digits + count > 19) break;
      w = w * kPowersOfTen[count] + leadingDigitsValue(chunk, count);
      digits += count;
      if (exponent) *exponent -= count;
      q += count;
      if (count < 8) return;
    }
    while (q < end && isDigit(*q)) {
      const unsigned d = static_cast<unsigned>(*q - '0');
      if (digits < 20) w = w * 10 + d;
      if (digits != 0 || d != 0) ++digits;
      if (exponent) --*exponent;
      ++q;
    }
  }

  bool scanNumber(NumberScan& n) {
    const uint8_t* q = p_;
    const uint8_t* const end = end_;
    if (*q == '-') {
      n.negative = true;
      ++q;
    }
    if (q >= end) return fail(kMessageInvalidNumber, p_);
    uint64_t w = 0;
    int digits = 0;
    if (*q == '0') {
      ++q;
      if (q < end && isDigit(*q)) return fail(kMessageInvalidNumber, p_);
    } else if (isDigit(*q)) {
      readDigits(q, end, w, digits, nullptr);
    } else {
      return fail(kMessageInvalidNumber, p_);
    }
    int exponent = 0;
    if (q < end && *q == '.') {
      n.isFloat = true;
      ++q;
      if (q >= end || !isDigit(*q)) return fail(kMessageInvalidNumber, p_);
      readDigits(q, end, w, digits, &exponent);
    }
    if (q < end && (*q | 0x20) == 'e') {
      n.isFloat = true;
      ++q;
      bool negativeExponent = false;
      if (q < end && (*q == '+' || *q == '-')) negativeExponent = *q++ == '-';
      if (q >= end || !isDigit(*q)) return fail(kMessageInvalidNumber, p_);
      int e = 0;
      do {
        if (e < 100000) e = e * 10 + (*q - '0');
        ++q;
      } while (q < end && isDigit(*q));
      exponent += negativeExponent ? -e : e;
    }
    n.length = static_cast<size_t>(q - p_);
    n.significand = w;
    n.digits = digits;
    n.exponent = exponent;
    return true;
  }

  // Checks a number token where it cannot stand, for the message that names it.
  bool scanNumberSyntax(size_t& length) {
    NumberScan n;
    if (!scanNumber(n)) return false;
    length = n.length;
    return true;
  }

  bool parseNumber(const Place& place) {
    NumberScan n;
    if (!scanNumber(n)) return false;
    const uint8_t* start = p_;
    p_ += n.length;
    if (!n.isFloat) {
      if (n.digits <= 19) {
        if (!n.negative) {
          construct(place, static_cast<unsigned long long>(n.significand));
          return true;
        }
        // "-0" is the integer 0, as every number without a fraction or exponent is an integer.
        if (n.significand <= static_cast<uint64_t>(INT64_MAX) + 1) {
          construct(place, static_cast<long long>(0 - n.significand));
          return true;
        }
      }
    } else if (n.digits <= 19) {
      if (n.significand == 0) {
        construct(place, n.negative ? -0.0 : 0.0);
        return true;
      }
      double d;
      if (decimalToDouble(n.significand, n.exponent, n.negative, d)) {
        construct(place, d);
        return true;
      }
    }
    // Long integers, long or extreme decimals: the careful converter.
    NumberValue number;
    std::string message;
    if (!convertNumberToken(std::string_view(reinterpret_cast<const char*>(start), n.length), n.isFloat,
                            number, message)) {
      return fail(PXString(message), start);
    }
    switch (number.kind) {
      case NumberValue::Kind::Signed:
        construct(place, static_cast<long long>(number.i));
        break;
      case NumberValue::Kind::Unsigned:
        construct(place, static_cast<unsigned long long>(number.u));
        break;
      case NumberValue::Kind::Double:
        construct(place, number.d);
        break;
    }
    return true;
  }

  // ---- Strings -------------------------------------------------------------
  // p_ at the opening quote. Strings without escapes (and, in strict mode, every
  // valid string without escapes) are returned in place, without copying.
  bool scanString(StringToken& token) {
    const uint8_t* quote = p_;
    const uint8_t* start = p_ + 1;
    const uint8_t* q = start;
    for (;;) {
      q = findStringSpecial(q, end_);
      if (q >= end_) return fail(kMessageInvalidString, quote);
      const uint8_t c = *q;
      if (c == '"') {
        token.data = start;
        token.length = static_cast<size_t>(q - start);
        p_ = q + 1;
        return true;
      }
      if (c >= 0x80) {
        const uint8_t* after = skipValidUTF8(q, end_);
        if (after != q) {
          q = after;
          continue;
        }
        const UTF8Sequence seq = decodeUTF8(q, end_);
        if (!looseUnicode_)
          return fail(seq.status == UTF8Status::Truncated ? kMessageUTF8AtEnd : kMessageIllegalUTF8, q);
        return scanStringSlow(quote, start, q, token);
      }
      if (c == '\\') return scanStringSlow(quote, start, q, token);
      return failControlCharacter(c, q);
    }
  }

  bool failControlCharacter(uint8_t c, const uint8_t* at) {
    return fail(PXFormat(kMessageControlCharacter, static_cast<unsigned>(c)), at);
  }

  // The copying path: escapes are decoded, and in loose mode bad UTF-8 replaced.
  bool scanStringSlow(const uint8_t* quote, const uint8_t* start, const uint8_t* q, StringToken& token) {
    std::string& out = st_.scratch;
    try {
      out.assign(reinterpret_cast<const char*>(start), static_cast<size_t>(q - start));
      for (;;) {
        const uint8_t* run = q;
        q = findStringSpecial(q, end_);
        out.append(reinterpret_cast<const char*>(run), static_cast<size_t>(q - run));
        if (q >= end_) return fail(kMessageInvalidString, quote);
        const uint8_t c = *q;
        if (c == '"') {
          token.data = reinterpret_cast<const uint8_t*>(out.data());
          token.length = out.size();
          p_ = q + 1;
          return true;
        }
        if (c >= 0x80) {
          const UTF8Sequence seq = decodeUTF8(q, end_);
          if (seq.status == UTF8Status::Ok) {
            out.append(reinterpret_cast<const char*>(q), seq.length);
          } else if (!looseUnicode_) {
            return fail(seq.status == UTF8Status::Truncated ? kMessageUTF8AtEnd : kMessageIllegalUTF8, q);
          } else {
            appendUTF8(out, kReplacementCharacter);
          }
          q += seq.length;
          continue;
        }
        if (c != '\\') return failControlCharacter(c, q);
        if (!decodeEscape(quote, q, out)) return false;
      }
    } catch (const std::bad_alloc&) {
      fail(kMessageTemporaryBufferMemory, q);
      throw;
    }
  }

  // One escape at `q` (the backslash); advances `q` past it.
  bool decodeEscape(const uint8_t* quote, const uint8_t*& q, std::string& out) {
    const uint8_t* escape = q;
    if (q + 1 >= end_) return fail(kMessageInvalidString, quote);
    char simple;
    switch (q[1]) {
      case '"':
        simple = '"';
        break;
      case '\\':
        simple = '\\';
        break;
      case '/':
        simple = '/';
        break;
      case 'b':
        simple = '\b';
        break;
      case 'f':
        simple = '\f';
        break;
      case 'n':
        simple = '\n';
        break;
      case 'r':
        simple = '\r';
        break;
      case 't':
        simple = '\t';
        break;
      case 'u': {
        uint32_t unit;
        if (!readHex4(quote, q + 2, unit)) return false;
        q += 6;
        if (unit >= 0xDC00 && unit <= 0xDFFF) {  // a low surrogate on its own
          if (!looseUnicode_) return fail(kMessageIllegalUnicodeEscape, escape);
          appendUTF8(out, kReplacementCharacter);
          return true;
        }
        if (unit < 0xD800 || unit > 0xDBFF) {
          appendUTF8(out, unit);
          return true;
        }
        // A high surrogate needs a second \u escape with the low half.
        if (q >= end_ || (*q == '\\' && q + 1 >= end_)) return fail(kMessageInvalidString, quote);
        if (*q != '\\' || q[1] != 'u') {
          if (!looseUnicode_) return fail(kMessageSecondSurrogateEscape, escape);
          appendUTF8(out, kReplacementCharacter);  // what follows is read on its own
          return true;
        }
        uint32_t low;
        if (!readHex4(quote, q + 2, low)) return false;
        if (low < 0xDC00 || low > 0xDFFF) {
          if (!looseUnicode_) return fail(kMessageIllegalUnicodeEscape, escape);
          appendUTF8(out, kReplacementCharacter);  // the second escape is read on its own
          return true;
        }
        q += 6;
        appendUTF8(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
        return true;
      }
      default:
        return fail(kMessageInvalidEscape, escape);
    }
    out.push_back(simple);
    q += 2;
    return true;
  }

  bool readHex4(const uint8_t* quote, const uint8_t* at, uint32_t& unit) {
    unit = 0;
    for (int i = 0; i < 4; ++i) {
      if (at + i >= end_) return fail(kMessageInvalidString, quote);
      const uint8_t c = at[i];
      uint32_t digit;
      if (c >= '0' && c <= '9') {
        digit = c - '0';
      } else if ((c | 0x20) >= 'a' && (c | 0x20) <= 'f') {
        digit = (c | 0x20) - 'a' + 10;
      } else {
        return fail(PXFormat(kMessageUnicodeEscapeHex, static_cast<char>(c)), at + i);
      }
      unit = (unit << 4) | digit;
    }
    return true;
  }

  DecoderState& st_;
  const uint8_t* const begin_;
  const uint8_t* p_;
  const uint8_t* const end_;
  const bool comments_;
  const bool unicodeNewlines_;
  const bool looseUnicode_;
  const bool permitTrailingText_;
  const bool plainWhitespaceOnly_;  // neither comments nor Unicode line breaks
  bool failed_ = false;
  PXValue emptyArray_, emptyDictionary_;  // the shared empty immutable containers, once fetched
  PXString message_;
  size_t errorIndex_ = 0;
};

PXErrorRef makeError(const PXString& message) {
  return PXError::errorWithDomain(kPXJSONErrorDomain, -1, message);
}

}  // namespace

PXString composeExpectedMessage(unsigned accepted, const char* valueWord, const char* endWord,
                                std::string_view token) {
  PXString words[3];
  int n = 0;
  if (accepted & kAcceptValue) words[n++] = valueWord;
  if (accepted & kAcceptComma) words[n++] = kWordComma;
  if (accepted & kAcceptEnd) words[n++] = endWord;
  const std::string text(token);
  const int length = static_cast<int>(text.size());
  switch (n) {
    case 1:
      return PXFormat(kMessageExpectedOne, words[0], length, length, text.c_str());
    case 2:
      return PXFormat(kMessageExpectedTwo, words[0], words[1], length, length, text.c_str());
    default:
      return PXFormat(kMessageExpectedThree, words[0], words[1], words[2], length, length, text.c_str());
  }
}

}  // namespace pxkit::json::internal

using namespace pxkit::json::internal;

const char* const kPXJSONErrorDomain = "PXJSONErrorDomain";
const char* const kPXJSONAtIndexKey = "PXJSONAtIndexKey";
const char* const kPXJSONLineNumberKey = "PXJSONLineNumberKey";

PX_DEFINE_CLASS(JSONDecoder, PXObject, nullptr)

JSONDecoder::JSONDecoder(JSONParseOptionFlags parseOptionFlags) : parseOptionFlags_(parseOptionFlags) {}

JSONDecoder::~JSONDecoder() = default;

PXRef<JSONDecoder> JSONDecoder::decoder() {
  return decoderWithParseOptions(kPXJSONParseOptionStrict);
}

PXRef<JSONDecoder> JSONDecoder::decoderWithParseOptions(JSONParseOptionFlags parseOptionFlags) {
  if ((parseOptionFlags & ~kPXJSONParseOptionValidFlags) != 0) {
    PXException::raise(kPXInvalidArgumentException, "%s", kMessageInvalidParseOptions);
  }
  return PXRef<JSONDecoder>::adopt(new JSONDecoder(parseOptionFlags));
}

void JSONDecoder::clearCache() {
  if (state_) state_->cache.reset();
}

PXValue JSONDecoder::decode(const char* bytes, size_t length, bool mutableCollections, PXErrorRef* error) {
  if (!state_) {
    try {
      state_ = std::make_unique<DecoderState>();
    } catch (const std::bad_alloc&) {
      PXSetError(error, makeError(kMessageStateMemory));
      return PXValue();
    }
  }
  const auto* begin = reinterpret_cast<const uint8_t*>(bytes);
  PXValue result;
  PXString message;
  size_t index = 0;
  if (mutableCollections) {
    Parser<true> parser(*state_, begin, length, parseOptionFlags_);
    result = parser.parseDocument();
    if (!result) message = parser.message(), index = parser.errorIndex();
  } else {
    Parser<false> parser(*state_, begin, length, parseOptionFlags_);
    result = parser.parseDocument();
    if (!result) message = parser.message(), index = parser.errorIndex();
  }
  if (!result && error) {
    const size_t line = lineNumberAt(begin, begin + length, index,
                                     (parseOptionFlags_ & kPXJSONParseOptionUnicodeNewlines) != 0);
    auto userInfo = PXDictionary::dictionaryWithEntries({
        {kPXLocalizedDescriptionKey, message},
        {kPXJSONAtIndexKey, static_cast<unsigned long long>(index)},
        {kPXJSONLineNumberKey, static_cast<unsigned long long>(line)},
    });
    *error = PXError::errorWithDomain(kPXJSONErrorDomain, -1, std::move(userInfo));
  }
  return result;
}

PXValue JSONDecoder::objectWithData(const PXData* jsonData, PXErrorRef* error) {
  if (!jsonData) {
    PXSetError(error, makeError(kMessageDataArgumentNull));
    return PXValue();
  }
  const std::string_view bytes = jsonData->view();
  return decode(bytes.data(), bytes.size(), /*mutableCollections=*/false, error);
}

PXValue JSONDecoder::mutableObjectWithData(const PXData* jsonData, PXErrorRef* error) {
  if (!jsonData) {
    PXSetError(error, makeError(kMessageDataArgumentNull));
    return PXValue();
  }
  const std::string_view bytes = jsonData->view();
  return decode(bytes.data(), bytes.size(), /*mutableCollections=*/true, error);
}

PXValue JSONDecoder::objectWithUTF8String(const char* string, size_t length, PXErrorRef* error) {
  if (!string) {
    PXSetError(error, makeError(kMessageStringArgumentNull));
    return PXValue();
  }
  return decode(string, length, /*mutableCollections=*/false, error);
}

PXValue JSONDecoder::mutableObjectWithUTF8String(const char* string, size_t length, PXErrorRef* error) {
  if (!string) {
    PXSetError(error, makeError(kMessageStringArgumentNull));
    return PXValue();
  }
  return decode(string, length, /*mutableCollections=*/true, error);
}

// ---- Strings and byte buffers ------------------------------------------------

namespace {

PXValue decodeString(const PXString& string, JSONParseOptionFlags options, bool mutableCollections,
                     PXErrorRef* error) {
  if (!string) {
    PXSetError(error, makeError(kMessageStringConversion));
    return PXValue();
  }
  auto decoder = JSONDecoder::decoderWithParseOptions(options);
  return mutableCollections ? decoder->mutableObjectWithUTF8String(string.c_str(), string.size(), error)
                            : decoder->objectWithUTF8String(string.c_str(), string.size(), error);
}

PXValue decodeData(const PXData* data, JSONParseOptionFlags options, bool mutableCollections,
                   PXErrorRef* error) {
  auto decoder = JSONDecoder::decoderWithParseOptions(options);
  return mutableCollections ? decoder->mutableObjectWithData(data, error)
                            : decoder->objectWithData(data, error);
}

}  // namespace

PXValue objectFromJSONString(const PXString& string) {
  return decodeString(string, kPXJSONParseOptionStrict, false, nullptr);
}
PXValue objectFromJSONStringWithParseOptions(const PXString& string, JSONParseOptionFlags parseOptionFlags,
                                             PXErrorRef* error) {
  return decodeString(string, parseOptionFlags, false, error);
}
PXValue mutableObjectFromJSONString(const PXString& string) {
  return decodeString(string, kPXJSONParseOptionStrict, true, nullptr);
}
PXValue mutableObjectFromJSONStringWithParseOptions(const PXString& string,
                                                    JSONParseOptionFlags parseOptionFlags,
                                                    PXErrorRef* error) {
  return decodeString(string, parseOptionFlags, true, error);
}
PXValue objectFromJSONData(const PXData* data) {
  return decodeData(data, kPXJSONParseOptionStrict, false, nullptr);
}
PXValue objectFromJSONDataWithParseOptions(const PXData* data, JSONParseOptionFlags parseOptionFlags,
                                           PXErrorRef* error) {
  return decodeData(data, parseOptionFlags, false, error);
}
PXValue mutableObjectFromJSONData(const PXData* data) {
  return decodeData(data, kPXJSONParseOptionStrict, true, nullptr);
}
PXValue mutableObjectFromJSONDataWithParseOptions(const PXData* data, JSONParseOptionFlags parseOptionFlags,
                                                  PXErrorRef* error) {
  return decodeData(data, parseOptionFlags, true, error);
}
