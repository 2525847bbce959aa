// PXKit — the kit's universal value.
//
// A PXValue is what an "id" is to the rest of the kit: a cheap, copyable handle
// that is one of
//   absent  (nil: nothing at all)        null    (the null object, JSON null)
//   boolean signed 64-bit   unsigned 64-bit   double   (together: numbers)
//   string  (UTF-8)         data (PXData)     date (PXDate)
//   object  (any PXObject: arrays, dictionaries, errors, metrics, ...)
//
// Booleans are numbers: PXValue(true) equals PXValue(1) and prints "1". Numbers
// of different kinds compare by value. Strings of up to 14 bytes are stored
// inline, without allocation.
//
//   PXValue v = 42;                        // signed number
//   PXValue s = "hello";                   // string
//   PXValue list = PXValue(PXArray::arrayWithObjects({1, 2, 3}));
//   if (v.isNumber()) printf("%lld\n", v.longLongValue());
//   v.description();                       // "42", the "%@" text; absent gives "(null)"
//
// Thread safety: a value; copies share immutable storage (objects are shared
// by reference count).
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXDate.h>
#include <pxkit/objects/PXRef.h>
#include <pxkit/objects/PXString.h>

#include <compare>
#include <cstdint>
#include <cstring>
#include <string_view>

class PXObject;
class PXArray;
class PXDictionary;
class PXData;
class PXMutableArray;
class PXMutableDictionary;
class PXMutableData;

// The result of compare(): ascending means the receiver is smaller.
enum PXComparisonResult : int { PXOrderedAscending = -1, PXOrderedSame = 0, PXOrderedDescending = 1 };

class PXKIT_EXPORT PXValue {
 public:
  enum class Kind : uint8_t { Absent, Null, Bool, Int, UInt, Double, Date, String, Data, Object };

  // ---- Construction ------------------------------------------------------
  PXValue() noexcept : raw_{} {}  // all zero: the absent kind, no payload
  static PXValue null() noexcept {
    PXValue v;
    v.setKind(Kind::Null);
    return v;
  }
  PXValue(bool b) noexcept : PXValue() { setScalar(Kind::Bool, static_cast<int64_t>(b)); }       // NOLINT
  PXValue(int i) noexcept : PXValue() { setScalar(Kind::Int, static_cast<int64_t>(i)); }         // NOLINT
  PXValue(long i) noexcept : PXValue() { setScalar(Kind::Int, static_cast<int64_t>(i)); }        // NOLINT
  PXValue(long long i) noexcept : PXValue() { setScalar(Kind::Int, static_cast<int64_t>(i)); }   // NOLINT
  PXValue(unsigned i) noexcept : PXValue() { setScalar(Kind::UInt, static_cast<uint64_t>(i)); }  // NOLINT
  PXValue(unsigned long u) noexcept : PXValue() {
    setScalar(Kind::UInt, static_cast<uint64_t>(u));
  }  // NOLINT
  PXValue(unsigned long long u) noexcept : PXValue() {
    setScalar(Kind::UInt, static_cast<uint64_t>(u));
  }                                                                       // NOLINT
  PXValue(double d) noexcept : PXValue() { setScalar(Kind::Double, d); }  // NOLINT
  PXValue(PXDate date) noexcept : PXValue() {
    setScalar(Kind::Date, date.timeIntervalSinceReferenceDate());
  }  // NOLINT
  // Strings; a null `const char*` and an absent PXString give an absent value.
  PXValue(const char* text);       // NOLINT(google-explicit-constructor)
  PXValue(std::string_view text);  // NOLINT(google-explicit-constructor)
  PXValue(const std::string& text) : PXValue(std::string_view(text)) {}  // NOLINT
  PXValue(const PXString& text) noexcept;  // NOLINT(google-explicit-constructor)
  // Objects; an empty reference gives an absent value. PXData becomes the data kind.
  PXValue(const PXRef<PXObject>& object) noexcept;  // NOLINT(google-explicit-constructor)
  template <class T, class = std::enable_if_t<std::is_base_of_v<PXObject, T>>>
  PXValue(const PXRef<T>& object) noexcept : PXValue(PXRef<PXObject>(object)) {}  // NOLINT
  // Takes over the one count the caller owns on `object` (non-null, not a PXData),
  // adding and dropping none: for builders that have just made the object with `new`.
  static PXValue adoptObject(PXObject* object) noexcept {
    PXValue v;
    v.setScalar(Kind::Object, object);
    return v;
  }
  // Nonsense conversions are refused rather than silently made booleans.
  PXValue(const void*) = delete;
  PXValue(std::nullptr_t) = delete;

  // Copies and destruction stay inline: scalars and inline strings are plain bytes,
  // only shared storage touches a count.
  PXValue(const PXValue& other) noexcept {
    std::memcpy(raw_, other.raw_, sizeof raw_);
    if (isCounted()) retainStorage();
  }
  PXValue(PXValue&& other) noexcept {
    std::memcpy(raw_, other.raw_, sizeof raw_);
    other.setKind(Kind::Absent);
  }
  PXValue& operator=(const PXValue& other) noexcept {
    if (this != &other) {
      if (other.isCounted()) other.retainStorage();
      if (isCounted()) releaseStorage();
      std::memcpy(raw_, other.raw_, sizeof raw_);
    }
    return *this;
  }
  PXValue& operator=(PXValue&& other) noexcept {
    if (this != &other) {
      if (isCounted()) releaseStorage();
      std::memcpy(raw_, other.raw_, sizeof raw_);
      other.setKind(Kind::Absent);
    }
    return *this;
  }
  ~PXValue() {
    if (isCounted()) releaseStorage();
  }

  // ---- Kind --------------------------------------------------------------
  Kind kind() const noexcept {
    return rawKind() == kSmallString ? Kind::String : static_cast<Kind>(rawKind());
  }
  bool isAbsent() const noexcept { return rawKind() == static_cast<uint8_t>(Kind::Absent); }
  explicit operator bool() const noexcept { return !isAbsent(); }  // present?
  bool isNull() const noexcept { return kind() == Kind::Null; }
  bool isNumber() const noexcept {
    Kind k = kind();
    return k == Kind::Bool || k == Kind::Int || k == Kind::UInt || k == Kind::Double;
  }
  bool isBool() const noexcept { return kind() == Kind::Bool; }
  bool isString() const noexcept { return kind() == Kind::String; }
  bool isData() const noexcept { return kind() == Kind::Data; }
  bool isDate() const noexcept { return kind() == Kind::Date; }
  bool isObject() const noexcept { return kind() == Kind::Object; }
  bool isArray() const noexcept;       // PXArray or PXMutableArray
  bool isDictionary() const noexcept;  // PXDictionary or PXMutableDictionary
  // The class name for messages: "NSString", "NSNumber", "NSNull", "NSDate", "NSData"
  // for the value kinds, the PXClass name for objects, "nil" for absent.
  PXString className() const;

  // ---- Access ------------------------------------------------------------
  // Numbers convert between kinds as C does; strings are parsed as numbers
  // (leading white space, then digits: "12abc" → 12); anything else gives 0 / NO.
  bool boolValue() const noexcept;
  int32_t intValue() const noexcept;
  int64_t longLongValue() const noexcept;
  uint64_t unsignedLongLongValue() const noexcept;
  double doubleValue() const noexcept;
  // The bytes of a string value; "" for every other kind. Valid while this value lives unchanged.
  std::string_view stringValue() const noexcept {
    if (rawKind() == kSmallString) return {reinterpret_cast<const char*>(raw_), raw_[14]};
    if (rawKind() == static_cast<uint8_t>(Kind::String)) {
      const pxkit::internal::StringRep* rep = payload<pxkit::internal::StringRep*>();
      return {rep->chars(), rep->size};
    }
    return {};
  }
  // The string as a shared handle; absent for other kinds.
  PXString stringObject() const;
  // The date of a date value; the reference date for other kinds.
  PXDate dateValue() const noexcept;
  // The object of an object or data value; empty for other kinds.
  PXRef<PXObject> objectValue() const noexcept;
  PXObject* objectPointer() const noexcept;  // without a count; null for other kinds
  // Asks the processor, ahead of time, for the cache line that holds the
  // count of the storage this value shares (a heap string, data or object), so
  // that a later copy or destruction does not wait for it. A hint only; nothing
  // for other kinds. Containers use it over their items.
  void prefetchCount() const noexcept {
    // The count sits in the first 16 bytes of a StringRep and of a PXObject
    // (after its vtable pointer), so it shares the first cache line.
    if (isCounted()) __builtin_prefetch(payload<const void*>(), 1);
  }
  // Typed views of containers and data; empty when the value is something else.
  PXRef<PXArray> arrayValue() const noexcept;
  PXRef<PXDictionary> dictionaryValue() const noexcept;
  PXRef<PXData> dataValue() const noexcept;
  PXRef<PXMutableArray> mutableArrayValue() const noexcept;            // only the mutable form
  PXRef<PXMutableDictionary> mutableDictionaryValue() const noexcept;  // only the mutable form

  // ---- Equality, order, hash, text ---------------------------------------
  // isEqual: numbers by value across kinds (true == 1), strings by bytes, dates by
  // moment, objects by PXObject::isEqual; absent equals only absent.
  bool isEqual(const PXValue& other) const noexcept {
    // Inline strings are zero-filled past their bytes, so two of them are equal
    // exactly when all sixteen bytes are: the common dictionary-key case, inline.
    if (rawKind() == kSmallString && other.rawKind() == kSmallString)
      return std::memcmp(raw_, other.raw_, sizeof raw_) == 0;
    return isEqualSlow(other);
  }
  friend bool operator==(const PXValue& a, const PXValue& b) noexcept { return a.isEqual(b); }
  // compare: numbers numerically, strings by bytes, dates by moment.
  // Values of unrelated kinds order by kind (a total order, for sorting).
  PXComparisonResult compare(const PXValue& other) const noexcept;
  // Consistent with isEqual.
  size_t hash() const noexcept;
  // Identity: the same object or string storage, or the same scalar (bit for bit).
  bool isIdenticalTo(const PXValue& other) const noexcept;
  // The "%@" text: numbers as "%lld"/"%llu"/"%.17g"-style shortest text, booleans "1"/"0",
  // strings as they are, null "<null>", dates "2001-01-01 00:00:00 +0000", absent "(null)".
  PXString description() const;

  // A copy for storage (copy-policy properties, dictionary keys): strings and
  // scalars are returned as they are; objects are asked for PXObject::copy().
  PXValue copy() const;

 private:
  static constexpr uint8_t kSmallString = 16;  // inline string, up to kSmallCapacity bytes
  static constexpr size_t kSmallCapacity = 14;

  uint8_t rawKind() const noexcept { return raw_[15]; }
  // String (heap), Data and Object own a count; the inline string does not.
  bool isCounted() const noexcept {
    return rawKind() >= static_cast<uint8_t>(Kind::String) && rawKind() <= static_cast<uint8_t>(Kind::Object);
  }
  void setKind(Kind k) noexcept { raw_[15] = static_cast<uint8_t>(k); }
  template <class T>
  void setScalar(Kind k, T payload) noexcept {
    std::memcpy(raw_, &payload, sizeof payload);
    raw_[15] = static_cast<uint8_t>(k);
  }
  template <class T>
  T payload() const noexcept {
    T v;
    std::memcpy(&v, raw_, sizeof v);
    return v;
  }
  // Heap strings keep their count inline here; data and objects go through PXObject.
  void retainStorage() const noexcept {
    if (rawKind() == static_cast<uint8_t>(Kind::String)) {
      payload<pxkit::internal::StringRep*>()->retain();
    } else {
      retainObject();
    }
  }
  void releaseStorage() noexcept {
    if (rawKind() == static_cast<uint8_t>(Kind::String)) {
      payload<pxkit::internal::StringRep*>()->release();
    } else {
      releaseObject();
    }
  }
  bool isEqualSlow(const PXValue& other) const noexcept;
  void retainObject() const noexcept;
  void releaseObject() noexcept;

  // bytes 0-13: inline string or 8-byte payload; 14: inline length; 15: kind.
  alignas(8) unsigned char raw_[16];
};

template <>
struct std::hash<PXValue> {
  size_t operator()(const PXValue& v) const noexcept { return v.hash(); }
};
