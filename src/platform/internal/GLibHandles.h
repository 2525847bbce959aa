// Owning handles for GLib objects, sources, contexts and buffers.
//
// One std::unique_ptr flavour per GLib type, each with a deleter that accepts
// null, so no code of the kit calls g_object_unref or g_free by hand:
//
//   pxkit::glib::Object<GFileMonitor> monitor(g_file_monitor_file(file.get(), flags, nullptr, &error));
//   pxkit::glib::Error error;           // GError*, freed with g_error_free
//   g_file_get_contents(path, &out, &length, pxkit::glib::out(error));
//   pxkit::glib::AttachedSource timer(g_timeout_source_new(100));
//   g_source_attach(timer.get(), context);   // destroyed and unreffed when `timer` goes
//
// `ref(p)` takes a new reference of a borrowed pointer; the constructors adopt
// the reference the caller already owns (as GLib's "transfer full" results).
//
// Platform layer only: this header includes GLib and never reaches include/pxkit/.
#pragma once

#include <gio/gio.h>
#include <glib-object.h>
#include <glib.h>

#include <memory>

#include "objects/internal/CHandle.h"

namespace pxkit::glib {

template <class T, auto Free>
using Handle = CHandle<T, Free>;

// ---- Reference-counted GLib types ------------------------------------------
struct ObjectDeleter {
  void operator()(gpointer p) const noexcept {
    if (p) g_object_unref(p);
  }
};
// Any GObject (GFileMonitor, GCancellable, GDBusConnection, GSubprocess, ...).
template <class T>
using Object = std::unique_ptr<T, ObjectDeleter>;

using MainContext = Handle<GMainContext, g_main_context_unref>;
using MainLoop = Handle<GMainLoop, g_main_loop_unref>;
// A source that is only referenced (not attached, or attached by someone else).
using Source = Handle<GSource, g_source_unref>;
using TimeZone = Handle<GTimeZone, g_time_zone_unref>;
using DateTime = Handle<GDateTime, g_date_time_unref>;
using Bytes = Handle<GBytes, g_bytes_unref>;
using Variant = Handle<GVariant, g_variant_unref>;
using VariantIter = Handle<GVariantIter, g_variant_iter_free>;
using HashTable = Handle<GHashTable, g_hash_table_unref>;
using KeyFile = Handle<GKeyFile, g_key_file_unref>;

// ---- Plain buffers -----------------------------------------------------------
struct FreeDeleter {
  void operator()(gpointer p) const noexcept { g_free(p); }  // g_free accepts null
};
// A g_malloc'ed string (gchar*).
using String = std::unique_ptr<gchar, FreeDeleter>;
// A NULL-terminated g_malloc'ed string vector (gchar**).
using Strv = Handle<gchar*, g_strfreev>;
using Error = Handle<GError, g_error_free>;

// ---- Attached sources ----------------------------------------------------------
// A source that is (or will be) attached to a context: the deleter removes it
// from its context, then drops the reference.
struct AttachedSourceDeleter {
  void operator()(GSource* p) const noexcept {
    if (p) {
      g_source_destroy(p);
      g_source_unref(p);
    }
  }
};
using AttachedSource = std::unique_ptr<GSource, AttachedSourceDeleter>;

// ---- Helpers ---------------------------------------------------------------------
// A new reference to a borrowed GObject, owned by the result.
template <class T>
Object<T> ref(T* p) noexcept {
  return Object<T>(p ? static_cast<T*>(g_object_ref(p)) : nullptr);
}
inline MainContext ref(GMainContext* p) noexcept {
  return MainContext(p ? g_main_context_ref(p) : nullptr);
}
inline Source ref(GSource* p) noexcept {
  return Source(p ? g_source_ref(p) : nullptr);
}
inline TimeZone ref(GTimeZone* p) noexcept {
  return TimeZone(p ? g_time_zone_ref(p) : nullptr);
}
inline DateTime ref(GDateTime* p) noexcept {
  return DateTime(p ? g_date_time_ref(p) : nullptr);
}

// The out-parameter of a GLib call that hands back an owned pointer, such as
// `GError**` or `gchar**`: `g_file_get_contents(path, out(text), &length, out(error))`.
// Frees what the handle held before; the new pointer (if any) lands in the
// handle at the end of the full expression.
template <class Owner>
class OutParam {
 public:
  using Pointer = typename Owner::pointer;
  explicit OutParam(Owner& owner) noexcept : owner_(owner) {}
  ~OutParam() { owner_.reset(raw_); }
  OutParam(const OutParam&) = delete;
  OutParam& operator=(const OutParam&) = delete;
  operator Pointer*() noexcept { return &raw_; }  // NOLINT(google-explicit-constructor)

 private:
  Owner& owner_;
  Pointer raw_ = nullptr;
};
template <class T, class D>
OutParam<std::unique_ptr<T, D>> out(std::unique_ptr<T, D>& owner) noexcept {
  owner.reset();
  return OutParam<std::unique_ptr<T, D>>(owner);
}

// Pushes `context` as the calling thread's default main context for the
// lifetime of the object, and pops it again.
class ThreadDefaultContext {
 public:
  explicit ThreadDefaultContext(GMainContext* context) noexcept : context_(context) {
    g_main_context_push_thread_default(context_);
  }
  ~ThreadDefaultContext() { g_main_context_pop_thread_default(context_); }
  ThreadDefaultContext(const ThreadDefaultContext&) = delete;
  ThreadDefaultContext& operator=(const ThreadDefaultContext&) = delete;

 private:
  GMainContext* context_;
};

}  // namespace pxkit::glib
