#include "platform/internal/VariantValue.h"

#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXDictionary.h>

#include <vector>

#include "platform/internal/GLibHandles.h"

namespace pxkit::internal {

namespace {

constexpr size_t kMaxVariantDepth = 64;

PXValue valueAt(GVariant* v, size_t depth) {
  if (!v || depth > kMaxVariantDepth) return {};
  switch (g_variant_classify(v)) {
    case G_VARIANT_CLASS_BOOLEAN:
      return PXValue(static_cast<bool>(g_variant_get_boolean(v)));
    case G_VARIANT_CLASS_BYTE:
      return PXValue(static_cast<long long>(g_variant_get_byte(v)));
    case G_VARIANT_CLASS_INT16:
      return PXValue(static_cast<long long>(g_variant_get_int16(v)));
    case G_VARIANT_CLASS_UINT16:
      return PXValue(static_cast<long long>(g_variant_get_uint16(v)));
    case G_VARIANT_CLASS_INT32:
      return PXValue(static_cast<long long>(g_variant_get_int32(v)));
    case G_VARIANT_CLASS_UINT32:
      return PXValue(static_cast<long long>(g_variant_get_uint32(v)));
    case G_VARIANT_CLASS_INT64:
      return PXValue(static_cast<long long>(g_variant_get_int64(v)));
    case G_VARIANT_CLASS_UINT64:
      return PXValue(static_cast<unsigned long long>(g_variant_get_uint64(v)));
    case G_VARIANT_CLASS_HANDLE:
      return PXValue(static_cast<long long>(g_variant_get_handle(v)));
    case G_VARIANT_CLASS_DOUBLE:
      return PXValue(g_variant_get_double(v));
    case G_VARIANT_CLASS_STRING:
    case G_VARIANT_CLASS_OBJECT_PATH:
    case G_VARIANT_CLASS_SIGNATURE:
      return PXValue(g_variant_get_string(v, nullptr));
    case G_VARIANT_CLASS_VARIANT: {
      glib::Variant inner(g_variant_get_variant(v));
      return valueAt(inner.get(), depth + 1);
    }
    case G_VARIANT_CLASS_MAYBE: {
      glib::Variant inner(g_variant_get_maybe(v));
      return valueAt(inner.get(), depth + 1);
    }
    case G_VARIANT_CLASS_ARRAY: {
      if (g_variant_is_of_type(v, G_VARIANT_TYPE_BYTESTRING)) {
        gsize n = 0;
        const void* bytes = g_variant_get_fixed_array(v, &n, 1);
        return PXValue(PXData::dataWithBytes(bytes, n));
      }
      const gsize n = g_variant_n_children(v);
      const bool isDictionary = g_variant_type_is_dict_entry(g_variant_type_element(g_variant_get_type(v)));
      if (isDictionary) {
        std::vector<PXDictionary::Entry> entries;
        for (gsize i = 0; i < n; ++i) {
          glib::Variant entry(g_variant_get_child_value(v, i));
          glib::Variant key(g_variant_get_child_value(entry.get(), 0));
          glib::Variant value(g_variant_get_child_value(entry.get(), 1));
          PXValue k = valueAt(key.get(), depth + 1), item = valueAt(value.get(), depth + 1);
          if (k && item) entries.emplace_back(k.isString() ? k : PXValue(k.description()), item);
        }
        return PXValue(PXDictionary::dictionaryWithEntries(std::move(entries)));
      }
      [[fallthrough]];
    }
    case G_VARIANT_CLASS_TUPLE: {
      std::vector<PXValue> items;
      for (gsize i = 0, n = g_variant_n_children(v); i < n; ++i) {
        glib::Variant child(g_variant_get_child_value(v, i));
        if (PXValue item = valueAt(child.get(), depth + 1)) items.push_back(std::move(item));
      }
      return PXValue(PXArray::arrayWithValues(std::move(items)));
    }
    default:
      return {};
  }
}

}  // namespace

PXValue valueOfVariant(GVariant* variant) {
  return valueAt(variant, 0);
}

}  // namespace pxkit::internal
