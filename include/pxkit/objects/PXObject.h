// PXKit — the root of the kit's object model.
//
// PXObject gives every kit class what the rest of the kit relies on:
//  - an intrusive atomic reference count (PXRef / PXWeakRef);
//  - a class object (PXClass) with the declared properties of each class;
//  - a recursive monitor, allocated on first use, for "@synchronized"-style locks;
//  - associated objects, keyed by address;
//  - key-value coding over declared properties and key paths;
//  - key-value observing with change dictionaries, over key paths.
//
//   class Person : public PXObject {
//     PX_DECLARE_CLASS(Person)
//    public:
//     PXString name() const { return name_; }
//     void setName(PXString v) { setObservable(name_, std::move(v), "name"); }
//    private:
//     PXString name_;
//   };
//   // Person.cpp
//   PX_DEFINE_CLASS(Person, PXObject, [](PXClassBuilder<Person>& c) {
//     c.property("name", &Person::name_, PXPropertyOwnership::Copy, "@\"NSString\"");
//   })
//
// Thread safety: reference counting, monitors, associations and observer
// registration are thread-safe. Observers are told on the thread that changes
// the value. Objects are never copied by value; they live behind PXRef.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXClass.h>
#include <pxkit/objects/PXMonitor.h>
#include <pxkit/objects/PXRef.h>
#include <pxkit/objects/PXValue.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string_view>
#include <utility>

class PXObject;
namespace pxkit::internal {
struct ObjectExtras;
ObjectExtras& extrasOf(const PXObject& object);
ObjectExtras* extrasIfPresent(const PXObject& object) noexcept;
}  // namespace pxkit::internal

// Options of addObserver (bit set).
enum PXKeyValueObservingOptions : unsigned {
  PXKeyValueObservingOptionNew = 0x01,
  PXKeyValueObservingOptionOld = 0x02,
  PXKeyValueObservingOptionInitial = 0x04,
  PXKeyValueObservingOptionPrior = 0x08,
};

// Keys of a change dictionary.
PXKIT_EXPORT extern const char* const kPXKeyValueChangeKindKey;                 // "kind"
PXKIT_EXPORT extern const char* const kPXKeyValueChangeNewKey;                  // "new"
PXKIT_EXPORT extern const char* const kPXKeyValueChangeOldKey;                  // "old"
PXKIT_EXPORT extern const char* const kPXKeyValueChangeNotificationIsPriorKey;  // "notificationIsPrior"
// Values of "kind": a plain setting of the value.
inline constexpr int kPXKeyValueChangeSetting = 1;

// Names of the exceptions the object model raises.
PXKIT_EXPORT extern const char* const kPXInvalidArgumentException;  // "NSInvalidArgumentException"
PXKIT_EXPORT extern const char* const kPXRangeException;            // "NSRangeException"
PXKIT_EXPORT extern const char* const kPXUndefinedKeyException;     // "NSUnknownKeyException"
PXKIT_EXPORT extern const char* const kPXInternalInconsistencyException;

// The answer of PXObject::lookupValueForKey / lookupValueForKeyPath.
enum class PXKeyLookup : uint8_t {
  Found,         // a present value
  Absent,        // the lookup answered absent (a missing dictionary entry, an absent step)
  UndefinedKey,  // an object on the way is not key value coding-compliant for its key
};

// What an undefined-key lookup would have raised: the key that was not found and
// the exception's reason ("[<Class 0x…> valueForUndefinedKey:]: this class is
// not key value coding-compliant for the key k.").
struct PXKIT_EXPORT PXUndefinedKey {
  PXString key;
  PXString reason;
  // Raises the kPXUndefinedKeyException the raising lookup would have raised
  // (same reason, the key in the user info under "NSUnknownUserInfoKey").
  [[noreturn]] void raise() const;
};

// How an associated object is held.
enum class PXAssociationPolicy : uint8_t {
  Assign,  // no reference: the caller keeps the object alive
  Retain,  // a strong reference
  Copy,    // a copy (PXObject::copy) held strongly
};

// Quick type tests without dynamic_cast; set once by the container classes.
enum class PXObjectTag : uint8_t { Object, Array, Dictionary, Data, Error };

class PXKIT_EXPORT PXObject {
 public:
  PXObject() noexcept = default;
  virtual ~PXObject();
  PXObject(const PXObject&) = delete;
  PXObject& operator=(const PXObject&) = delete;

  // ---- Reference counting ------------------------------------------------
  void retain() const noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
  void release() const noexcept {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy();
  }
  uint32_t retainCount() const noexcept { return refs_.load(std::memory_order_relaxed); }

  // ---- Class -------------------------------------------------------------
  static const PXClass& classObject();
  virtual const PXClass& pxClass() const { return classObject(); }
  bool isKindOfClass(const PXClass& cls) const { return pxClass().isSubclassOf(cls); }
  PXObjectTag objectTag() const noexcept { return tag_; }
  // Whether this is the mutable form of a container.
  bool isMutable() const noexcept { return mutable_; }

  // ---- Identity and text -------------------------------------------------
  // isEqual: identity by default; value classes compare contents.
  virtual bool isEqual(const PXObject& other) const { return this == &other; }
  virtual size_t hash() const { return reinterpret_cast<size_t>(this) >> 4; }
  // The "%@" text; by default "<ClassName: 0x...>".
  virtual PXString description() const;
  // An immutable copy (immutable objects return themselves) and a mutable copy
  // (empty where the class has no mutable form).
  virtual PXRef<PXObject> copy() const;
  virtual PXRef<PXObject> mutableCopy() const;

  // ---- Walks over large graphs -------------------------------------------
  // Asks the processor, ahead of time, for the cache lines of what this object
  // holds, because a walk over a large graph (releasing it, archiving it) is
  // about to reach them: containers ask for their first items. A hint only,
  // safe to skip; the default does nothing.
  virtual void prefetchContents() const noexcept {}

  // ---- Monitor -----------------------------------------------------------
  // The object's recursive monitor, made on first use: `std::lock_guard g(obj->monitor());`
  // A class whose instances are locked often may keep one of its own and
  // return it here.
  virtual PXMonitor& monitor() const;

  // ---- Associated objects ------------------------------------------------
  // Sets (or, with an absent value, removes) the value associated under `key`.
  void setAssociatedObject(const void* key, const PXValue& value, PXAssociationPolicy policy);
  // The associated value, or absent.
  PXValue associatedObject(const void* key) const;
  void removeAssociatedObjects();

  // ---- Key-value coding --------------------------------------------------
  // The value of a declared property, or valueForUndefinedKey.
  virtual PXValue valueForKey(std::string_view key) const;
  // Sets a declared writable property, or setValueForUndefinedKey. Announces the change.
  virtual void setValueForKey(const PXValue& value, std::string_view key);
  // Dotted paths: each step's value must be an object; absent values end the walk with absent.
  // Virtual so that a class answering whole paths itself (a prefix routed to a
  // provider, say) is asked for the path in one call, by key-value coding and by
  // lookupValueForKeyPath alike.
  virtual PXValue valueForKeyPath(std::string_view keyPath) const;
  void setValueForKeyPath(const PXValue& value, std::string_view keyPath);
  // Raise PXException kPXUndefinedKeyException:
  // "[<%@ %p> valueForUndefinedKey:]: this class is not key value coding-compliant for the key %@."
  virtual PXValue valueForUndefinedKey(std::string_view key) const;
  virtual void setValueForUndefinedKey(const PXValue& value, std::string_view key);

  // ---- Key lookup that does not raise ------------------------------------
  // lookupValueForKey / lookupValueForKeyPath answer what valueForKey /
  // valueForKeyPath answer, but say "undefined key" instead of raising, so that
  // a caller (the predicate evaluator) decides what to raise:
  //   PXKeyLookup::Found         `*out` holds the value (never absent);
  //   PXKeyLookup::Absent        the lookup answered absent (a dictionary's
  //                              missing key, an absent step of a path); `*out` is absent;
  //   PXKeyLookup::UndefinedKey  some object on the way did not know its key;
  //                              `*out` is absent and `*undefinedKey` (when given)
  //                              says which key and holds the reason the raising
  //                              lookup would have given.
  // Overrides are honoured: the lookup calls this object's own (virtual)
  // valueForKey for a key without a dot and valueForKeyPath otherwise, exactly
  // once. While that call runs, the base valueForUndefinedKey and the walk over
  // a path record the first undefined key on this thread and answer absent
  // instead of raising; an override that raises kPXUndefinedKeyException itself
  // is caught and reported the same way. Other exceptions pass through.
  // Consequence for overrides: inside such a lookup, a nested valueForKey on
  // another object answers absent for an unknown key (and the outer lookup
  // reports UndefinedKey) instead of raising; an override that wants to probe a
  // key and go on calls lookupValueForKey itself, which opens its own scope.
  // Thread: as valueForKey; `out` must not be null.
  PXKeyLookup lookupValueForKey(std::string_view key, PXValue* out,
                                PXUndefinedKey* undefinedKey = nullptr) const;
  PXKeyLookup lookupValueForKeyPath(std::string_view keyPath, PXValue* out,
                                    PXUndefinedKey* undefinedKey = nullptr) const;

  // ---- Key-value observing -----------------------------------------------
  // Registers `observer` (not retained) for changes of `keyPath`. With a dotted
  // path, intermediate objects are followed: when one is replaced the
  // observation moves to the new one and the observer hears of the change.
  void addObserver(PXObject* observer, std::string_view keyPath, unsigned options, void* context);
  // Removes the registration with this observer, key path and context (any context when null).
  void removeObserver(PXObject* observer, std::string_view keyPath, void* context = nullptr);
  // Called on the observer. `change` holds "kind" and, as requested, "new", "old",
  // "notificationIsPrior". The default does nothing.
  virtual void observeValueForKeyPath(const PXString& keyPath, PXObject* object, const PXDictionary& change,
                                      void* context);
  // Bracket a change of `key` so that its observers hear of it.
  void willChangeValueForKey(std::string_view key);
  void didChangeValueForKey(std::string_view key);

 protected:
  explicit PXObject(PXObjectTag tag, bool isMutable = false) noexcept : tag_(tag), mutable_(isMutable) {}

  // The one helper every observable setter uses: announces, assigns, announces.
  template <class Field, class Value>
  void setObservable(Field& field, Value&& value, std::string_view key) {
    willChangeValueForKey(key);
    field = std::forward<Value>(value);
    didChangeValueForKey(key);
  }
  // The same for an atomic property guarded by `lock`: the old value is
  // released after the lock is dropped, and observers run without it.
  template <class Field, class Value>
  void setObservable(std::mutex& lock, Field& field, Value&& value, std::string_view key) {
    willChangeValueForKey(key);
    [[maybe_unused]] Field previous;  // released after the lock
    {
      std::lock_guard guard(lock);
      previous = std::exchange(field, std::forward<Value>(value));
    }
    didChangeValueForKey(key);
  }
  // Reads an atomic property guarded by `lock`.
  template <class Field>
  static Field getAtomic(std::mutex& lock, const Field& field) {
    std::lock_guard guard(lock);
    return field;
  }

 private:
  friend pxkit::internal::WeakControl* pxkit::internal::weakControlFor(const PXObject*);
  friend PXObject* pxkit::internal::weakControlLock(pxkit::internal::WeakControl*) noexcept;
  friend pxkit::internal::ObjectExtras& pxkit::internal::extrasOf(const PXObject&);
  friend pxkit::internal::ObjectExtras* pxkit::internal::extrasIfPresent(const PXObject&) noexcept;
  pxkit::internal::ObjectExtras& extras() const;
  pxkit::internal::ObjectExtras* extrasIfPresent() const noexcept {
    return extras_.load(std::memory_order_acquire);
  }
  void destroy() const noexcept;

  mutable std::atomic<uint32_t> refs_{1};
  PXObjectTag tag_ = PXObjectTag::Object;
  bool mutable_ = false;
  mutable std::atomic<pxkit::internal::ObjectExtras*> extras_{nullptr};
};

// The non-raising lookup for any value, as an evaluator walking values needs it:
// an object is asked lookupValueForKey (`keyOrPath` without a dot) or
// lookupValueForKeyPath; an absent or null receiver answers Absent; a plain
// value (number, string, date, data) has no keys and answers UndefinedKey with
// the reason an object would give ("[<NSString 0x…> valueForUndefinedKey:]: …
// for the key length."). `out` must not be null. Thread: as the receiver's lookup.
PXKIT_EXPORT PXKeyLookup PXLookupValue(const PXValue& receiver, std::string_view keyOrPath, PXValue* out,
                                       PXUndefinedKey* undefinedKey = nullptr);

// Declares the class object of a PXObject subclass (inside the class body).
#define PX_DECLARE_CLASS(Name)              \
 public:                                    \
  static const PXClass& classObject();      \
  const PXClass& pxClass() const override { \
    return Name::classObject();             \
  }                                         \
                                            \
 private:

// Defines and registers the class object (in one .cpp file). `describe` is a
// callable taking PXClassBuilder<Name>& that declares properties and, when the
// class can be made by name, its factory.
#define PX_DEFINE_CLASS(Name, Super, describe)                                                       \
  const PXClass& Name::classObject() {                                                               \
    static const PXClass& cls = PXClassBuilder<Name>::build(#Name, &Super::classObject(), describe); \
    return cls;                                                                                      \
  }                                                                                                  \
  [[maybe_unused]] static const PXClass& pxkit_registered_##Name = Name::classObject();
