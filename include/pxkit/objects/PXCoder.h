// PXKit — objects that can be written into a keyed archive and read back.
//
// A kit class that wants to travel through PXKeyedArchiver adopts PXCoding next
// to PXObject, registers a factory so it can be made by class name, and writes
// and reads its state under keys of its own:
//
//   class Point : public PXObject, public PXCoding {
//     PX_DECLARE_CLASS(Point)
//    public:
//     void encodeWithCoder(PXKeyedArchiver& coder) override {
//       coder.encodeInteger(x_, "x");
//       coder.encodeObject(label_, "label");
//     }
//     bool initWithCoder(PXKeyedUnarchiver& coder) override {
//       x_ = coder.decodeIntegerForKey("x");
//       label_ = coder.decodeStringForKey("label");
//       return true;
//     }
//    private:
//     int64_t x_ = 0;
//     PXString label_;
//   };
//   // Point.cpp
//   PX_DEFINE_CLASS(Point, PXObject, [](PXClassBuilder<Point>& c) { c.factory(); })
//
// The archive records the object's PXClass name (pxClass().name()); reading it
// back makes a fresh instance with PXClass::named(name)->createInstance() and
// calls initWithCoder on it. Only classes that registered a factory and adopt
// PXCoding can be made from an archive: any other name makes the whole
// unarchiving fail, so an archive cannot conjure up arbitrary objects.
//
// References between coded objects may form cycles (an object may even refer
// to itself); they come back as the same cycles. As everywhere in the kit's
// reference counting, a cycle that nobody breaks is never freed: a class whose
// instances refer to one another breaks such references itself (or holds them
// weakly).
//
// Thread safety: encodeWithCoder / initWithCoder run on the thread that calls
// archivedDataWithRootObject / unarchiveObjectWithData; an object that may be
// changed by other threads meanwhile takes its own lock in encodeWithCoder.
#pragma once

#include <pxkit/export.h>

class PXKeyedArchiver;
class PXKeyedUnarchiver;

class PXKIT_EXPORT PXCoding {
 public:
  virtual ~PXCoding() = default;

  // Writes the object's state into `coder` under the object's own keys. Not
  // const: an object may settle pending state first (a usage clock, say).
  virtual void encodeWithCoder(PXKeyedArchiver& coder) = 0;

  // Reads the state back into a freshly made instance. Returning false (or
  // calling coder.failWithError) rejects the archive: unarchiving gives absent.
  // Values of the wrong type, or keys that are missing, come back as absent / 0.
  [[nodiscard]] virtual bool initWithCoder(PXKeyedUnarchiver& coder) = 0;

 protected:
  PXCoding() = default;
  PXCoding(const PXCoding&) = default;
  PXCoding& operator=(const PXCoding&) = default;
};
