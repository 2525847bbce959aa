// PXKit — the property-list XML format: writer and GMarkup-driven reader.
#include <glib.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/platform/PXPropertyList.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

const char* const kPXPropertyListErrorDomain = "PXPropertyListErrorDomain";

namespace {

PXErrorRef makeError(PXPropertyListErrorCode code, const std::string& message) {
  return PXError::errorWithDomain(kPXPropertyListErrorDomain, code, PXString(message));
}

// ---- Calendar arithmetic (proleptic Gregorian, UTC) ------------------------
//
// Days between 1970-01-01 and a civil date, and back; exact for every int64 day
// count the format can hold.

int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

struct Civil {
  int64_t year;
  unsigned month, day;
};

Civil civilFromDays(int64_t z) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t y = static_cast<int64_t>(yoe) + era * 400;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const unsigned d = doy - (153 * mp + 2) / 5 + 1;
  const unsigned m = mp < 10 ? mp + 3 : mp - 9;
  return {y + (m <= 2), m, d};
}

bool isLeapYear(int64_t y) {
  return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
}

unsigned daysInMonth(int64_t y, unsigned m) {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && isLeapYear(y) ? 29 : kDays[m - 1];
}

// Dates further than this from the reference date are refused: about three
// million years, well inside what int64 seconds and a double's integer range hold.
constexpr double kMaxDateMagnitude = 1e14;
constexpr int64_t kReferenceDateUnixSeconds = 978307200;

// Formats whole seconds since the reference date plus an optional fraction text ("5" for .5).
std::string formatDate(int64_t seconds, std::string_view fraction) {
  const int64_t unixSeconds = seconds + kReferenceDateUnixSeconds;
  int64_t days = unixSeconds / 86400;
  int64_t rem = unixSeconds % 86400;
  if (rem < 0) rem += 86400, days -= 1;
  const Civil c = civilFromDays(days);
  char buf[96];
  const long long year = static_cast<long long>(c.year);
  int n = std::snprintf(buf, sizeof buf, "%s%04lld-%02u-%02uT%02d:%02d:%02d", year < 0 ? "-" : "",
                        year < 0 ? -year : year, c.month, c.day, static_cast<int>(rem / 3600),
                        static_cast<int>(rem / 60 % 60), static_cast<int>(rem % 60));
  std::string out(buf, static_cast<size_t>(n));
  if (!fraction.empty()) out.append(".").append(fraction);
  out.push_back('Z');
  return out;
}

bool parseDigits(std::string_view& s, size_t count, unsigned* out) {
  if (s.size() < count) return false;
  unsigned v = 0;
  for (size_t i = 0; i < count; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    v = v * 10 + static_cast<unsigned>(s[i] - '0');
  }
  *out = v;
  s.remove_prefix(count);
  return true;
}

bool expect(std::string_view& s, char c) {
  if (s.empty() || s[0] != c) return false;
  s.remove_prefix(1);
  return true;
}

// ---- Numbers ---------------------------------------------------------------

std::string formatDouble(double d) {
  if (std::isnan(d)) return "nan";
  if (std::isinf(d)) return d > 0 ? "+infinity" : "-infinity";
  char buf[64];
  auto res = std::to_chars(buf, buf + sizeof buf, d);  // shortest text that reads back exactly
  return std::string(buf, res.ptr);
}

bool parseDouble(std::string_view s, double* out) {
  if (s.empty()) return false;
  std::string lower(s);
  for (char& c : lower) c = static_cast<char>(g_ascii_tolower(c));
  if (lower == "nan") return *out = std::numeric_limits<double>::quiet_NaN(), true;
  if (lower == "+infinity" || lower == "infinity" || lower == "+inf" || lower == "inf")
    return *out = std::numeric_limits<double>::infinity(), true;
  if (lower == "-infinity" || lower == "-inf") return *out = -std::numeric_limits<double>::infinity(), true;
  if (s[0] == '+') s.remove_prefix(1);
  if (s.empty() || s[0] == '+') return false;
  double v = 0;
  auto res = std::from_chars(s.data(), s.data() + s.size(), v, std::chars_format::general);
  if (res.ec != std::errc() || res.ptr != s.data() + s.size()) return false;
  *out = v;
  return true;
}

// Decimal (optionally signed) or "0x" hexadecimal; signed when it fits int64, else unsigned.
bool parseInteger(std::string_view s, PXValue* out) {
  bool negative = false;
  if (!s.empty() && (s[0] == '-' || s[0] == '+')) negative = s[0] == '-', s.remove_prefix(1);
  int base = 10;
  if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) base = 16, s.remove_prefix(2);
  if (s.empty()) return false;
  uint64_t magnitude = 0;
  auto res = std::from_chars(s.data(), s.data() + s.size(), magnitude, base);
  if (res.ec != std::errc() || res.ptr != s.data() + s.size()) return false;
  if (negative) {
    constexpr uint64_t kMinMagnitude = static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) + 1;
    if (magnitude > kMinMagnitude) return false;
    *out = PXValue(static_cast<long long>(magnitude == kMinMagnitude ? std::numeric_limits<int64_t>::min()
                                                                     : -static_cast<int64_t>(magnitude)));
  } else if (magnitude <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
    *out = PXValue(static_cast<long long>(magnitude));
  } else {
    *out = PXValue(static_cast<unsigned long long>(magnitude));
  }
  return true;
}

// ---- Base64 ----------------------------------------------------------------

bool decodeBase64(std::string_view text, std::vector<uint8_t>* out) {
  std::string clean;
  clean.reserve(text.size());
  size_t padding = 0;
  for (char c : text) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') continue;
    if (c == '=') {
      ++padding;
      clean.push_back(c);
      continue;
    }
    if (padding || !(g_ascii_isalnum(c) || c == '+' || c == '/')) return false;
    clean.push_back(c);
  }
  if (padding > 2) return false;
  // Tolerate missing padding, refuse a length no encoder makes.
  if (padding == 0) {
    if (clean.size() % 4 == 1) return false;
    while (clean.size() % 4) clean.push_back('=');
  } else if (clean.size() % 4) {
    return false;
  }
  out->clear();
  if (clean.empty()) return true;
  gsize length = 0;
  guchar* bytes = g_base64_decode(clean.c_str(), &length);
  out->assign(bytes, bytes + length);
  g_free(bytes);
  return true;
}

// ---- Writer ----------------------------------------------------------------

class Writer {
 public:
  bool write(const PXValue& root, std::string* out, std::string* why) {
    out_ = out;
    why_ = why;
    out_->append("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n");
    if (!value(root, 0)) return false;
    out_->append("</plist>\n");
    return true;
  }

 private:
  bool fail(std::string message) {
    *why_ = std::move(message);
    return false;
  }

  void indent(size_t depth) { out_->append(depth, '\t'); }

  // Escapes text content; control characters other than tab and newline become
  // character references (carriage returns too, so line ends survive as written).
  bool appendText(std::string_view text) {
    if (!g_utf8_validate_len(text.data(), text.size(), nullptr)) return fail("string is not valid UTF-8");
    for (char c : text) {
      switch (c) {
        case '&':
          out_->append("&amp;");
          break;
        case '<':
          out_->append("&lt;");
          break;
        case '>':
          out_->append("&gt;");
          break;
        case '\0':
          return fail("string holds a NUL character");
        default:
          if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n') {
            char ref[8];
            std::snprintf(ref, sizeof ref, "&#x%X;", static_cast<unsigned>(c));
            out_->append(ref);
          } else {
            out_->push_back(c);
          }
      }
    }
    return true;
  }

  bool element(size_t depth, const char* name, std::string_view text, bool escape) {
    indent(depth);
    out_->append("<").append(name).append(">");
    if (escape) {
      if (!appendText(text)) return false;
    } else {
      out_->append(text);
    }
    out_->append("</").append(name).append(">\n");
    return true;
  }

  // `depth` counts the containers around `v`.
  bool value(const PXValue& v, size_t depth) {
    switch (v.kind()) {
      case PXValue::Kind::Absent:
        return fail("absent value");
      case PXValue::Kind::Null:
        return fail("null is not a property-list value");
      case PXValue::Kind::Bool:
        indent(depth);
        out_->append(v.boolValue() ? "<true/>\n" : "<false/>\n");
        return true;
      case PXValue::Kind::Int:
        return element(depth, "integer", std::to_string(v.longLongValue()), false);
      case PXValue::Kind::UInt:
        return element(depth, "integer", std::to_string(v.unsignedLongLongValue()), false);
      case PXValue::Kind::Double:
        return element(depth, "real", formatDouble(v.doubleValue()), false);
      case PXValue::Kind::Date: {
        std::string text = PXPropertyList::ISO8601StringFromDate(v.dateValue());
        if (text.empty()) return fail("date out of range");
        return element(depth, "date", text, false);
      }
      case PXValue::Kind::String:
        return element(depth, "string", v.stringValue(), true);
      case PXValue::Kind::Data: {
        PXRef<PXData> data = v.dataValue();
        if (!data) return fail("data value without bytes");
        gchar* encoded = g_base64_encode(data->bytes().data(), data->length());
        bool ok = element(depth, "data", encoded, false);
        g_free(encoded);
        return ok;
      }
      case PXValue::Kind::Object:
        break;
    }
    if ((v.isArray() || v.isDictionary()) && depth >= kPXPropertyListMaxDepth)
      return fail("nesting deeper than the property-list limit");
    if (PXRef<PXArray> array = v.arrayValue()) {
      indent(depth);
      if (array->count() == 0) return out_->append("<array/>\n"), true;
      out_->append("<array>\n");
      for (const PXValue& item : *array) {
        if (!value(item, depth + 1)) return false;
      }
      indent(depth);
      out_->append("</array>\n");
      return true;
    }
    if (PXRef<PXDictionary> dict = v.dictionaryValue()) {
      indent(depth);
      if (dict->count() == 0) return out_->append("<dict/>\n"), true;
      out_->append("<dict>\n");
      for (const auto& [key, item] : *dict) {
        if (!key.isString()) return fail("dictionary key is not a string");
        if (!element(depth + 1, "key", key.stringValue(), true) || !value(item, depth + 1)) return false;
      }
      indent(depth);
      out_->append("</dict>\n");
      return true;
    }
    return fail("object of class " + v.className().str() + " is not a property-list value");
  }

  std::string* out_ = nullptr;
  std::string* why_ = nullptr;
};

// ---- Reader ----------------------------------------------------------------

enum class Element : uint8_t { Plist, Array, Dict, Key, String, Integer, Real, Date, Data, True, False };

bool elementNamed(const char* name, Element* out) {
  static constexpr struct {
    const char* name;
    Element element;
  } kElements[] = {{"plist", Element::Plist}, {"array", Element::Array},   {"dict", Element::Dict},
                   {"key", Element::Key},     {"string", Element::String}, {"integer", Element::Integer},
                   {"real", Element::Real},   {"date", Element::Date},     {"data", Element::Data},
                   {"true", Element::True},   {"false", Element::False}};
  for (const auto& e : kElements) {
    if (std::strcmp(e.name, name) == 0) return *out = e.element, true;
  }
  return false;
}

struct Frame {
  Element element;
  std::string text;                        // scalars and keys
  std::vector<PXValue> items;              // arrays
  std::vector<PXDictionary::Entry> pairs;  // dictionaries
  PXValue pendingKey;                      // dictionaries: a key read, its value not yet
  PXValue root;                            // plist: its one value
};

class Reader {
 public:
  explicit Reader(PXPropertyListMutability mutability) : mutability_(mutability) {}

  PXValue parse(std::string_view text, std::string* why, PXPropertyListErrorCode* code) {
    static const GMarkupParser kParser = {&Reader::onStart, &Reader::onEnd, &Reader::onText, nullptr,
                                          nullptr};
    GMarkupParseContext* context =
        g_markup_parse_context_new(&kParser, G_MARKUP_TREAT_CDATA_AS_TEXT, this, nullptr);
    GError* error = nullptr;
    bool ok = g_markup_parse_context_parse(context, text.data(), static_cast<gssize>(text.size()), &error) &&
              g_markup_parse_context_end_parse(context, &error);
    g_markup_parse_context_free(context);
    if (!ok) {
      *why = error ? error->message : "malformed property list";
      *code = tooDeep_ ? PXPropertyListReadTooLargeError : PXPropertyListReadCorruptError;
      g_clear_error(&error);
      return {};
    }
    if (!done_) {
      *why = "no property-list value in the text";
      *code = PXPropertyListReadCorruptError;
      return {};
    }
    return result_;
  }

 private:
  static Reader* self(gpointer data) { return static_cast<Reader*>(data); }

  static void fail(GMarkupParseContext* context, GError** error, const char* format, const char* detail) {
    int line = 0, column = 0;
    g_markup_parse_context_get_position(context, &line, &column);
    gchar* text = g_strdup_printf(format, detail);
    g_set_error(error, G_MARKUP_ERROR, G_MARKUP_ERROR_INVALID_CONTENT, "line %d column %d: %s", line, column,
                text);
    g_free(text);
  }

  static bool isScalar(Element e) { return e != Element::Plist && e != Element::Array && e != Element::Dict; }

  static void onStart(GMarkupParseContext* context, const gchar* name, const gchar**, const gchar**,
                      gpointer data, GError** error) {
    Reader* r = self(data);
    Element element;
    if (!elementNamed(name, &element)) return fail(context, error, "unknown element <%s>", name);
    if (r->stack_.empty()) {
      if (r->done_) return fail(context, error, "a second root element <%s>", name);
    } else {
      Frame& top = r->stack_.back();
      if (isScalar(top.element)) return fail(context, error, "element <%s> inside a scalar", name);
      if (element == Element::Plist) return fail(context, error, "nested <%s>", name);
      if (top.element == Element::Dict && top.pendingKey.isAbsent() && element != Element::Key)
        return fail(context, error, "<%s> where a <key> was expected", name);
      if (top.element == Element::Dict && !top.pendingKey.isAbsent() && element == Element::Key)
        return fail(context, error, "<%s> where a value was expected", name);
      if (top.element != Element::Dict && element == Element::Key)
        return fail(context, error, "<%s> outside a dictionary", name);
      if (top.element == Element::Plist && !top.root.isAbsent())
        return fail(context, error, "a second value <%s> in the plist", name);
    }
    if (element == Element::Array || element == Element::Dict) {
      if (r->containerDepth_ >= kPXPropertyListMaxDepth) {
        r->tooDeep_ = true;
        return fail(context, error, "nesting deeper than the limit at <%s>", name);
      }
      ++r->containerDepth_;
    }
    r->stack_.push_back(Frame{element, {}, {}, {}, {}, {}});
  }

  static void onText(GMarkupParseContext* context, const gchar* text, gsize length, gpointer data,
                     GError** error) {
    Reader* r = self(data);
    std::string_view chunk(text, length);
    if (!r->stack_.empty() && isScalar(r->stack_.back().element)) {
      r->stack_.back().text.append(chunk);
      return;
    }
    for (char c : chunk) {
      if (c != ' ' && c != '\t' && c != '\n' && c != '\r')
        return fail(context, error, "text outside a value%s", "");
    }
  }

  PXValue buildScalar(Frame& f, bool* ok) {
    *ok = true;
    auto trimmed = [&] {
      std::string_view s = f.text;
      while (!s.empty() && g_ascii_isspace(s.front())) s.remove_prefix(1);
      while (!s.empty() && g_ascii_isspace(s.back())) s.remove_suffix(1);
      return s;
    };
    switch (f.element) {
      case Element::Key:
      case Element::String:
        return PXValue(std::string_view(f.text));
      case Element::True:
      case Element::False:
        *ok = trimmed().empty();
        return PXValue(f.element == Element::True);
      case Element::Integer: {
        PXValue v;
        *ok = parseInteger(trimmed(), &v);
        return v;
      }
      case Element::Real: {
        double d = 0;
        *ok = parseDouble(trimmed(), &d);
        return PXValue(d);
      }
      case Element::Date: {
        PXDate date;
        *ok = PXPropertyList::dateFromISO8601String(trimmed(), &date);
        return PXValue(date);
      }
      case Element::Data: {
        std::vector<uint8_t> bytes;
        *ok = decodeBase64(f.text, &bytes);
        if (mutability_ == PXPropertyListMutability::MutableContainersAndLeaves) {
          auto data = PXMutableData::data();
          data->mutableBytes() = std::move(bytes);
          return PXValue(data);
        }
        return PXValue(PXData::dataWithBytes(std::move(bytes)));
      }
      default:
        *ok = false;
        return {};
    }
  }

  PXValue buildContainer(Frame& f) {
    bool mutableContainers = mutability_ != PXPropertyListMutability::Immutable;
    if (f.element == Element::Array) {
      if (mutableContainers) return PXValue(PXMake<PXMutableArray>(std::move(f.items)));
      return PXValue(PXArray::arrayWithValues(std::move(f.items)));
    }
    if (mutableContainers) {
      auto dict = PXMutableDictionary::dictionary();
      for (auto& [key, value] : f.pairs) dict->setObject(value, key);
      return PXValue(dict);
    }
    return PXValue(PXDictionary::dictionaryWithEntries(std::move(f.pairs)));
  }

  static void onEnd(GMarkupParseContext* context, const gchar* name, gpointer data, GError** error) {
    Reader* r = self(data);
    Frame f = std::move(r->stack_.back());
    r->stack_.pop_back();
    if (f.element == Element::Array || f.element == Element::Dict) --r->containerDepth_;
    PXValue value;
    if (f.element == Element::Plist) {
      if (f.root.isAbsent()) return fail(context, error, "<%s> without a value", name);
      value = std::move(f.root);
    } else if (f.element == Element::Array || f.element == Element::Dict) {
      if (f.element == Element::Dict && !f.pendingKey.isAbsent())
        return fail(context, error, "a <key> without a value before </%s>", name);
      value = r->buildContainer(f);
    } else {
      bool ok = true;
      value = r->buildScalar(f, &ok);
      if (!ok) return fail(context, error, "malformed <%s> value", name);
    }
    if (r->stack_.empty()) {
      r->result_ = std::move(value);
      r->done_ = true;
      return;
    }
    Frame& parent = r->stack_.back();
    switch (parent.element) {
      case Element::Plist:
        parent.root = std::move(value);
        break;
      case Element::Array:
        parent.items.push_back(std::move(value));
        break;
      case Element::Dict:
        if (f.element == Element::Key) {
          parent.pendingKey = std::move(value);
        } else {
          parent.pairs.emplace_back(std::move(parent.pendingKey), std::move(value));
          parent.pendingKey = PXValue();
        }
        break;
      default:
        break;
    }
  }

  PXPropertyListMutability mutability_;
  std::vector<Frame> stack_;
  size_t containerDepth_ = 0;  // arrays and dictionaries open on the stack
  PXValue result_;
  bool done_ = false;
  bool tooDeep_ = false;
};

}  // namespace

// ---- Dates -----------------------------------------------------------------

std::string PXPropertyList::ISO8601StringFromDate(PXDate date) {
  const double t = date.timeIntervalSinceReferenceDate();
  if (!std::isfinite(t) || std::fabs(t) > kMaxDateMagnitude) return {};
  const double whole = std::floor(t);
  const auto seconds = static_cast<int64_t>(whole);
  if (whole == t) return formatDate(seconds, {});
  // The fraction is exact in long double; write the fewest digits that read back
  // to the same double, so a date survives the file bit for bit.
  const long double fraction = static_cast<long double>(t) - static_cast<long double>(whole);
  std::string last;
  for (int digits = 1; digits <= 21; ++digits) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*Lf", digits, fraction);
    if (buf[0] != '0') continue;  // rounded up to 1.000...: not a candidate
    last = formatDate(seconds, buf + 2);
    PXDate back;
    if (dateFromISO8601String(last, &back) && back.timeIntervalSinceReferenceDate() == t) return last;
  }
  return last;
}

bool PXPropertyList::dateFromISO8601String(std::string_view s, PXDate* out) {
  bool negativeYear = expect(s, '-');
  size_t yearDigits = 0;
  while (yearDigits < s.size() && s[yearDigits] >= '0' && s[yearDigits] <= '9') ++yearDigits;
  if (yearDigits < 4 || yearDigits > 7) return false;
  int64_t year = 0;
  for (size_t i = 0; i < yearDigits; ++i) year = year * 10 + (s[i] - '0');
  s.remove_prefix(yearDigits);
  if (negativeYear) year = -year;
  unsigned month, day, hour, minute, second;
  if (!expect(s, '-') || !parseDigits(s, 2, &month) || !expect(s, '-') || !parseDigits(s, 2, &day) ||
      !expect(s, 'T') || !parseDigits(s, 2, &hour) || !expect(s, ':') || !parseDigits(s, 2, &minute) ||
      !expect(s, ':') || !parseDigits(s, 2, &second))
    return false;
  if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 || minute > 59 ||
      second > 59)
    return false;
  long double fraction = 0;
  if (expect(s, '.')) {
    size_t n = 0;
    while (n < s.size() && s[n] >= '0' && s[n] <= '9') ++n;
    if (n == 0 || n > 30) return false;
    std::string digits = "0." + std::string(s.substr(0, n));
    fraction = std::strtold(digits.c_str(), nullptr);  // digits only: no locale involved
    s.remove_prefix(n);
  }
  if (s != "Z") return false;
  const int64_t unixSeconds = daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
  const long double t = static_cast<long double>(unixSeconds - kReferenceDateUnixSeconds) + fraction;
  if (std::fabs(static_cast<double>(t)) > kMaxDateMagnitude) return false;
  *out = PXDate(static_cast<double>(t));
  return true;
}

// ---- Public entry points ---------------------------------------------------

std::string PXPropertyList::XMLStringWithPropertyList(const PXValue& plist, PXErrorRef* error) {
  std::string out, why;
  Writer writer;
  if (!writer.write(plist, &out, &why)) {
    PXSetError(error, makeError(PXPropertyListWriteInvalidError, "cannot write a property list: " + why));
    return {};
  }
  return out;
}

PXRef<PXData> PXPropertyList::dataWithPropertyList(const PXValue& plist, PXErrorRef* error) {
  std::string text = XMLStringWithPropertyList(plist, error);
  if (text.empty()) return {};
  return PXData::dataWithString(text);
}

bool PXPropertyList::isValidPropertyList(const PXValue& plist) {
  return !XMLStringWithPropertyList(plist).empty();
}

PXValue PXPropertyList::propertyListWithString(std::string_view text, PXPropertyListMutability mutability,
                                               PXErrorRef* error) {
  if (text.size() > kPXPropertyListMaxLength) {
    PXSetError(error, makeError(PXPropertyListReadTooLargeError, "property list longer than the limit"));
    return {};
  }
  std::string why;
  PXPropertyListErrorCode code = PXPropertyListReadCorruptError;
  Reader reader(mutability);
  PXValue value = reader.parse(text, &why, &code);
  if (value.isAbsent()) PXSetError(error, makeError(code, "cannot read the property list: " + why));
  return value;
}

PXValue PXPropertyList::propertyListWithData(const PXData& data, PXPropertyListMutability mutability,
                                             PXErrorRef* error) {
  return propertyListWithString(data.view(), mutability, error);
}
