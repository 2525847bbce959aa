// PXKit — forward declarations of the kit's public types.
//
// Include this instead of a full header where a declaration only names a type.
#pragma once

#include <cstdint>

template <class T>
class PXRef;
template <class T>
class PXWeakRef;

class PXObject;
class PXClass;
class PXString;
class PXValue;
class PXDate;
class PXArray;
class PXMutableArray;
class PXDictionary;
class PXMutableDictionary;
class PXData;
class PXMutableData;
class PXError;
class PXException;

using PXArrayRef = PXRef<PXArray>;
using PXMutableArrayRef = PXRef<PXMutableArray>;
using PXDictionaryRef = PXRef<PXDictionary>;
using PXMutableDictionaryRef = PXRef<PXMutableDictionary>;
using PXDataRef = PXRef<PXData>;
using PXMutableDataRef = PXRef<PXMutableData>;
using PXErrorRef = PXRef<PXError>;
