// PXKit — class objects and declared properties.
//
// Each PXObject subclass registers one PXClass (PX_DEFINE_CLASS) naming its
// superclass and its declared properties: name, type code, ownership kind
// (copy / retain / assign) and backing field. Key-value coding, property
// enumeration, archiving by class name and the JSON object mapping all read
// this table; nothing inspects C++ types at run time.
//
// Type codes follow the familiar one-letter encoding: "c" boolean, "i" 32-bit,
// "q" 64-bit, "Q" unsigned 64-bit, "d" double, "@" object (or "@\"PXString\"" with a
// class name), "@?" callback.
//
// Thread safety: class objects are immutable once registered and may be read
// from any thread; registration happens at load time.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXRef.h>
#include <pxkit/objects/PXValue.h>

#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

class PXObject;
class PXClass;

enum class PXPropertyOwnership : uint8_t { Assign, Retain, Copy };

// One declared property.
struct PXKIT_EXPORT PXPropertyDescriptor {
  std::string name;
  std::string typeCode;
  PXPropertyOwnership ownership = PXPropertyOwnership::Assign;
  std::string backingField;  // "_name"; empty when the property has no backing field
  bool readOnly = false;
  bool atomic = true;

  // Reads the value (as a PXValue) from an instance of the declaring class.
  std::function<PXValue(const PXObject&)> get;
  // Writes it; empty for read-only properties.
  std::function<void(PXObject&, const PXValue&)> set;
  // Releases and clears the backing field; empty without a backing field.
  std::function<void(PXObject&)> clear;

  // The attribute string: "T<type>", then "R" (read-only), "C" (copy) or "&" (retain),
  // "N" when non-atomic, and "V<backing field>", comma-separated.
  std::string attributes() const;
};

class PXKIT_EXPORT PXClass {
 public:
  const std::string& name() const noexcept { return name_; }
  const PXClass* superclass() const noexcept { return superclass_; }
  // The properties this class itself declares, in declaration order.
  const std::vector<PXPropertyDescriptor>& properties() const noexcept { return properties_; }
  // The property named `name`, looked up along the superclass chain; null if none.
  const PXPropertyDescriptor* propertyNamed(std::string_view name) const;
  // True for this class and every class that has it as an ancestor.
  bool isSubclassOf(const PXClass& other) const noexcept;
  // Makes a new instance when the class registered a factory (archiving by name); else empty.
  PXRef<PXObject> createInstance() const;
  bool canCreateInstance() const noexcept { return static_cast<bool>(factory_); }

  // The registered class of that name, or null.
  static const PXClass* named(std::string_view name);
  // Every registered class, in registration order.
  static std::vector<const PXClass*> allClasses();

  // Registration (used through PX_DEFINE_CLASS / PXClassBuilder).
  static const PXClass& registerClass(std::string name, const PXClass* superclass,
                                      std::vector<PXPropertyDescriptor> properties,
                                      std::function<PXRef<PXObject>()> factory);

 private:
  PXClass() = default;
  std::string name_;
  const PXClass* superclass_ = nullptr;
  std::vector<PXPropertyDescriptor> properties_;
  std::function<PXRef<PXObject>()> factory_;
};

// Conversions between a property's C++ type and PXValue. Specialised for the
// kit's value types; objects convert through PXRef<T>.
template <class T, class = void>
struct PXValueTraits;

template <>
struct PXValueTraits<PXValue> {
  static PXValue toValue(const PXValue& v) { return v; }
  static PXValue fromValue(const PXValue& v) { return v; }
  static constexpr const char* typeCode = "@";
};
template <>
struct PXValueTraits<bool> {
  static PXValue toValue(bool v) { return PXValue(v); }
  static bool fromValue(const PXValue& v) { return v.boolValue(); }
  static constexpr const char* typeCode = "c";
};
template <>
struct PXValueTraits<int32_t> {
  static PXValue toValue(int32_t v) { return PXValue(static_cast<int64_t>(v)); }
  static int32_t fromValue(const PXValue& v) { return v.intValue(); }
  static constexpr const char* typeCode = "i";
};
template <>
struct PXValueTraits<int64_t> {
  static PXValue toValue(int64_t v) { return PXValue(v); }
  static int64_t fromValue(const PXValue& v) { return v.longLongValue(); }
  static constexpr const char* typeCode = "q";
};
template <>
struct PXValueTraits<uint64_t> {
  static PXValue toValue(uint64_t v) { return PXValue(v); }
  static uint64_t fromValue(const PXValue& v) { return v.unsignedLongLongValue(); }
  static constexpr const char* typeCode = "Q";
};
template <>
struct PXValueTraits<double> {
  static PXValue toValue(double v) { return PXValue(v); }
  static double fromValue(const PXValue& v) { return v.doubleValue(); }
  static constexpr const char* typeCode = "d";
};
template <>
struct PXValueTraits<PXString> {
  static PXValue toValue(const PXString& v) { return PXValue(v); }
  static PXString fromValue(const PXValue& v) { return v.stringObject(); }
  static constexpr const char* typeCode = "@\"NSString\"";
};
template <>
struct PXValueTraits<PXDate> {
  static PXValue toValue(const PXDate& v) { return PXValue(v); }
  static PXDate fromValue(const PXValue& v) { return v.dateValue(); }
  static constexpr const char* typeCode = "@\"NSDate\"";
};
template <class T>
struct PXValueTraits<PXRef<T>, std::enable_if_t<std::is_base_of_v<PXObject, T>>> {
  static PXValue toValue(const PXRef<T>& v) { return PXValue(PXRef<PXObject>(v)); }
  static PXRef<T> fromValue(const PXValue& v) { return PXDynamicCast<T>(v.objectValue()); }
  static constexpr const char* typeCode = "@";
};

// Declares the properties of class T (the callable passed to PX_DEFINE_CLASS).
template <class T>
class PXClassBuilder {
 public:
  // A property backed by a field: KVC reads and writes the field directly and
  // announces writes to observers.
  template <class F>
  PXClassBuilder& property(std::string name, F T::*field,
                           PXPropertyOwnership ownership = defaultOwnership<F>(),
                           std::string typeCode = PXValueTraits<F>::typeCode, bool readOnly = false) {
    PXPropertyDescriptor p;
    p.name = name;
    p.typeCode = std::move(typeCode);
    p.ownership = ownership;
    p.backingField = "_" + name;
    p.readOnly = readOnly;
    p.get = [field](const PXObject& o) { return PXValueTraits<F>::toValue(static_cast<const T&>(o).*field); };
    if (!readOnly) {
      p.set = [field, name](PXObject& o, const PXValue& v) {
        T& self = static_cast<T&>(o);
        self.willChangeValueForKey(name);
        self.*field = PXValueTraits<F>::fromValue(v);
        self.didChangeValueForKey(name);
      };
    }
    if (ownership != PXPropertyOwnership::Assign) {
      p.clear = [field](PXObject& o) { static_cast<T&>(o).*field = F{}; };
    }
    properties_.push_back(std::move(p));
    return *this;
  }

  // A property read (and optionally written) through member functions, with no backing field.
  // The setter is expected to announce its own change (setObservable).
  template <class G, class S = std::nullptr_t>
  PXClassBuilder& computed(std::string name, G getter, S setter = nullptr,
                           PXPropertyOwnership ownership = PXPropertyOwnership::Assign,
                           std::string typeCode = "") {
    using R = std::decay_t<std::invoke_result_t<G, const T&>>;
    PXPropertyDescriptor p;
    p.name = std::move(name);
    p.typeCode = typeCode.empty() ? PXValueTraits<R>::typeCode : std::move(typeCode);
    p.ownership = ownership;
    p.get = [getter](const PXObject& o) {
      return PXValueTraits<R>::toValue(std::invoke(getter, static_cast<const T&>(o)));
    };
    if constexpr (std::is_same_v<S, std::nullptr_t>) {
      p.readOnly = true;
    } else {
      p.set = [setter](PXObject& o, const PXValue& v) {
        std::invoke(setter, static_cast<T&>(o), PXValueTraits<R>::fromValue(v));
      };
    }
    properties_.push_back(std::move(p));
    return *this;
  }

  // Lets the class be made by name (archiving): requires a default constructor.
  PXClassBuilder& factory() {
    factory_ = [] { return PXRef<PXObject>(PXMake<T>()); };
    return *this;
  }

  template <class Describe>
  static const PXClass& build(const char* name, const PXClass* superclass, Describe&& describe) {
    PXClassBuilder builder;
    describe(builder);
    return PXClass::registerClass(name, superclass, std::move(builder.properties_),
                                  std::move(builder.factory_));
  }
  static const PXClass& build(const char* name, const PXClass* superclass, std::nullptr_t) {
    return PXClass::registerClass(name, superclass, {}, {});
  }

 private:
  template <class F>
  static constexpr PXPropertyOwnership defaultOwnership() {
    if constexpr (std::is_same_v<F, PXString>) return PXPropertyOwnership::Copy;
    if constexpr (std::is_same_v<F, PXValue> || std::is_same_v<F, PXDate>) return PXPropertyOwnership::Retain;
    if constexpr (requires { typename F::element_type; }) return PXPropertyOwnership::Retain;
    return PXPropertyOwnership::Assign;
  }

  std::vector<PXPropertyDescriptor> properties_;
  std::function<PXRef<PXObject>()> factory_;
};
