// Random JSON for the codec's property tests: documents as text (valid, in
// varied layouts) and value trees. Deterministic for a given seed.
#pragma once

#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

class JSONTestDocuments {
 public:
  explicit JSONTestDocuments(uint64_t seed) : rng_(seed) {}

  // ---- Text ----------------------------------------------------------------
  // A valid document with a top-level container. With `comments`, comments may
  // stand wherever white space may.
  std::string document(int maxDepth = 4, bool comments = false) {
    comments_ = comments;
    std::string out;
    space(out);
    container(out, maxDepth);
    space(out);
    return out;
  }

  // ---- Values --------------------------------------------------------------
  // A value tree with a container at the top; strings are well-formed UTF-8,
  // numbers finite.
  PXValue value(int maxDepth = 4) { return containerValue(maxDepth); }

  // A random code point (not a surrogate), biased towards the interesting ones.
  uint32_t codePoint() {
    switch (pick(8)) {
      case 0:
        return static_cast<uint32_t>(pick(0x20));  // control characters
      case 1:
        return "\"\\/"[pick(3)];
      case 2:
        return 0x80 + static_cast<uint32_t>(pick(0x780));  // two bytes
      case 3: {
        uint32_t cp = 0x800 + static_cast<uint32_t>(pick(0xF800));  // three bytes
        return (cp >= 0xD800 && cp <= 0xDFFF) ? 0xFFFD : cp;
      }
      case 4:
        return 0x10000 + static_cast<uint32_t>(pick(0x100000));  // four bytes
      default:
        return 0x20 + static_cast<uint32_t>(pick(0x5F));  // printable ASCII
    }
  }

  uint64_t pick(uint64_t n) { return n == 0 ? 0 : rng_() % n; }
  std::mt19937_64& rng() { return rng_; }

  static void appendUTF8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }

 private:
  void space(std::string& out) {
    static const char* const kSpaces[] = {"", "", "", " ", "\n", "\t", "\r\n", "  ", "\r"};
    out += kSpaces[pick(9)];
    if (comments_ && pick(8) == 0) {
      out += pick(2) ? "/* note */" : "// note\n";
      out += kSpaces[pick(9)];
    }
  }

  void container(std::string& out, int depth) {
    const bool isArray = pick(2) == 0;
    const size_t count = depth > 0 ? pick(6) : 0;
    out += isArray ? '[' : '{';
    for (size_t i = 0; i < count; ++i) {
      if (i) out += ',';
      space(out);
      if (!isArray) {
        stringText(out);
        space(out);
        out += ':';
        space(out);
      }
      valueText(out, depth - 1);
      space(out);
    }
    if (count == 0) space(out);
    out += isArray ? ']' : '}';
  }

  void valueText(std::string& out, int depth) {
    switch (pick(depth > 0 ? 9 : 7)) {
      case 0:
        out += "true";
        break;
      case 1:
        out += "false";
        break;
      case 2:
        out += "null";
        break;
      case 3:
      case 4:
        numberText(out);
        break;
      case 5:
      case 6:
        stringText(out);
        break;
      default:
        container(out, depth);
        break;
    }
  }

  void numberText(std::string& out) {
    static const char* const kEdges[] = {"0",
                                         "-0",
                                         "18446744073709551615",
                                         "-9223372036854775808",
                                         "9223372036854775807",
                                         "1e308",
                                         "-2.2250738585072014e-308",
                                         "5e-324",
                                         "0.1",
                                         "1E+2",
                                         "1e-2",
                                         "123456789.123456789e-3"};
    char buf[64];
    switch (pick(6)) {
      case 0:
        out += kEdges[pick(sizeof kEdges / sizeof kEdges[0])];
        return;
      case 1:
        std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(rng_()));
        break;
      case 2:
        std::snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(rng_() >> pick(64)));
        break;
      case 3:
        // Away from the largest doubles, which short precisions would round out of range.
        std::snprintf(buf, sizeof buf, "%.*g", static_cast<int>(1 + pick(17)), randomDouble() / 1e10);
        break;
      case 4:
        std::snprintf(buf, sizeof buf, "%.*f", static_cast<int>(pick(8)),
                      static_cast<double>(static_cast<int64_t>(rng_() % 2000001) - 1000000) / 1000.0);
        break;
      default:
        std::snprintf(buf, sizeof buf, "%d.%de%c%d", static_cast<int>(pick(1000)),
                      static_cast<int>(pick(1000)), "+-"[pick(2)], static_cast<int>(pick(300)));
        break;
    }
    // "%g" writes non-finite values and "inf" for huge ones; keep to JSON.
    if (std::strpbrk(buf, "in")) {
      out += "1.5";
    } else {
      out += buf;
    }
  }

  void stringText(std::string& out) {
    out += '"';
    const size_t length = pick(4) == 0 ? pick(60) : pick(12);
    for (size_t i = 0; i < length; ++i) {
      const uint32_t cp = codePoint();
      char buf[16];
      if (cp < 0x20 || (cp < 0x10000 && pick(6) == 0)) {
        std::snprintf(buf, sizeof buf, pick(2) ? "\\u%04x" : "\\u%04X", cp);
        out += buf;
      } else if (cp >= 0x10000 && pick(4) == 0) {
        const uint32_t v = cp - 0x10000;
        std::snprintf(buf, sizeof buf, "\\u%04x\\u%04x", 0xD800 + (v >> 10), 0xDC00 + (v & 0x3FF));
        out += buf;
      } else if (cp == '"' || cp == '\\') {
        out += '\\';
        out += static_cast<char>(cp);
      } else if (cp == '/' && pick(2)) {
        out += "\\/";
      } else {
        appendUTF8(out, cp);
      }
    }
    if (pick(5) == 0) out += "\\b\\f\\n\\r\\t";
    out += '"';
  }

  double randomDouble() {
    for (;;) {
      uint64_t bits = rng_();
      double d;
      std::memcpy(&d, &bits, sizeof d);
      if (std::isfinite(d)) return d;
    }
  }

  PXValue containerValue(int depth) {
    const size_t count = depth > 0 ? pick(6) : 0;
    if (pick(2) == 0) {
      std::vector<PXValue> values;
      for (size_t i = 0; i < count; ++i) values.push_back(leafOrContainer(depth - 1));
      return PXValue(PXArray::arrayWithValues(std::move(values)));
    }
    std::vector<PXDictionary::Entry> entries;
    for (size_t i = 0; i < count; ++i)
      entries.emplace_back(PXValue(stringValue()), leafOrContainer(depth - 1));
    return PXValue(PXDictionary::dictionaryWithEntries(std::move(entries)));
  }

  PXValue leafOrContainer(int depth) {
    switch (pick(depth > 0 ? 9 : 7)) {
      case 0:
        return PXValue(pick(2) == 0);
      case 1:
        return PXValue::null();
      case 2:
        return PXValue(static_cast<long long>(rng_()));
      case 3:
        return PXValue(static_cast<unsigned long long>(rng_() >> pick(64)));
      case 4:
        return PXValue(randomDouble());
      case 5:
      case 6:
        return PXValue(stringValue());
      default:
        return containerValue(depth);
    }
  }

  std::string stringValue() {
    std::string s;
    const size_t length = pick(4) == 0 ? pick(40) : pick(10);
    for (size_t i = 0; i < length; ++i) appendUTF8(s, codePoint());
    return s;
  }

  std::mt19937_64 rng_;
  bool comments_ = false;
};
