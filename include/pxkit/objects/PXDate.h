// PXKit — a moment in time.
//
// PXDate is a value: seconds since the reference date, 1 January 2001 00:00:00
// UTC, as a double. Every reading of "now" in the kit goes through PXDate::now(),
// which asks the kit's one replaceable clock (see PXClock.h), so tests can move
// time deterministically.
//
//   PXDate start = PXDate::now();
//   double elapsed = PXDate::now() - start;   // seconds
//
// Thread safety: a plain value; now() may be called from any thread.
#pragma once

#include <pxkit/export.h>

#include <compare>

// Seconds between the Unix epoch (1970) and the reference date (2001).
inline constexpr double kPXTimeIntervalSince1970 = 978307200.0;

class PXKIT_EXPORT PXDate {
 public:
  constexpr PXDate() noexcept = default;
  constexpr explicit PXDate(double timeIntervalSinceReferenceDate) noexcept
      : t_(timeIntervalSinceReferenceDate) {}

  // Now, from the kit's clock.
  static PXDate now();
  static constexpr PXDate dateWithTimeIntervalSince1970(double seconds) noexcept {
    return PXDate(seconds - kPXTimeIntervalSince1970);
  }
  static PXDate dateWithTimeIntervalSinceNow(double seconds) { return PXDate(now().t_ + seconds); }
  static constexpr PXDate distantPast() noexcept { return PXDate(-63113904000.0); }
  static constexpr PXDate distantFuture() noexcept { return PXDate(63113904000.0); }

  constexpr double timeIntervalSinceReferenceDate() const noexcept { return t_; }
  constexpr double timeIntervalSince1970() const noexcept { return t_ + kPXTimeIntervalSince1970; }
  constexpr double timeIntervalSinceDate(PXDate other) const noexcept { return t_ - other.t_; }
  double timeIntervalSinceNow() const { return t_ - now().t_; }
  constexpr PXDate dateByAddingTimeInterval(double seconds) const noexcept { return PXDate(t_ + seconds); }

  constexpr double operator-(PXDate other) const noexcept { return t_ - other.t_; }
  constexpr PXDate operator+(double seconds) const noexcept { return PXDate(t_ + seconds); }
  constexpr auto operator<=>(const PXDate&) const noexcept = default;

 private:
  double t_ = 0.0;
};
