#include <pxkit/foundation/PXDateTools.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/platform/PXCalendar.h>
#include <unicode/datefmt.h>
#include <unicode/locid.h>
#include <unicode/parsepos.h>
#include <unicode/simpletz.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <cmath>
#include <limits>
#include <memory>
#include <mutex>
#include <string>

#include "foundation/internal/Localization.h"

namespace PXDateTools {
namespace {

// ---- splitting -------------------------------------------------------------

// A whole count from a floored double, saturated to int; NaN gives 0.
int wholeCount(double floored) noexcept {
  if (std::isnan(floored)) return 0;
  if (floored >= static_cast<double>(std::numeric_limits<int>::max())) return std::numeric_limits<int>::max();
  if (floored <= static_cast<double>(std::numeric_limits<int>::min())) return std::numeric_limits<int>::min();
  return static_cast<int>(floored);
}

// ---- parsers ---------------------------------------------------------------

constexpr const char* kISO8601Pattern = "yyyy'-'MM'-'dd'T'HH':'mm':'ss.SSSZ";
constexpr const char* kRFC3339Pattern = "yyyy'-'MM'-'dd'T'HH':'mm':'ssZZZ";

// One shared timestamp parser: its pattern, and the same pattern without the
// trailing zone field for strings that carry no zone (their time is UTC).
class TimestampParser {
 public:
  explicit TimestampParser(const char* pattern) {
    const std::string full = pattern;
    const std::string zoneless = full.substr(0, full.find_last_not_of('Z') + 1);
    withZone_ = make(full);
    withoutZone_ = make(zoneless);
  }
  bool valid() const noexcept { return withZone_ && withoutZone_; }

  std::optional<PXDate> parse(std::string_view string) {
    if (string.size() > kPXMaxTimestampLength) return std::nullopt;
    const icu::UnicodeString text =
        icu::UnicodeString::fromUTF8(icu::StringPiece(string.data(), static_cast<int32_t>(string.size())));
    // An ICU formatter keeps its parse state in its calendar: one parse at a time.
    std::lock_guard lock(mutex_);
    icu::ParsePosition position(0);
    UDate millis = withZone_->parse(text, position);
    if (position.getErrorIndex() >= 0 && position.getErrorIndex() == text.length()) {
      // The string ended where a field was due. If that field was the zone, the
      // string has none and its time is UTC; the pattern without it decides.
      position = icu::ParsePosition(0);
      millis = withoutZone_->parse(text, position);
    }
    // The whole string must match; ICU stops quietly before trailing text.
    if (position.getErrorIndex() >= 0 || position.getIndex() != text.length()) return std::nullopt;
    return PXDate::dateWithTimeIntervalSince1970(millis / 1000.0);
  }

 private:
  static std::unique_ptr<icu::SimpleDateFormat> make(const std::string& pattern) {
    UErrorCode status = U_ZERO_ERROR;
    auto format = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString::fromUTF8(pattern),
                                                          icu::Locale("en_US_POSIX"), status);
    if (U_FAILURE(status)) return nullptr;
    format->adoptTimeZone(icu::TimeZone::createTimeZone("UTC"));
    // Strict: out-of-range fields (month 13, February 30, hour 25) do not roll over.
    format->setLenient(false);
    return format;
  }

  std::mutex mutex_;
  std::unique_ptr<icu::SimpleDateFormat> withZone_;
  std::unique_ptr<icu::SimpleDateFormat> withoutZone_;
};

// The shared parsers: made once per process on first use (C++ guarantees a
// single initialisation under concurrent first calls) and kept for its
// lifetime; null when ICU could not make them.
TimestampParser* makeSharedParser(const char* pattern) {
  auto parser = std::make_unique<TimestampParser>(pattern);
  return parser->valid() ? parser.release() : nullptr;
}

TimestampParser* iso8601Parser() {
  static TimestampParser* const parser = makeSharedParser(kISO8601Pattern);
  return parser;
}

TimestampParser* rfc3339Parser() {
  static TimestampParser* const parser = makeSharedParser(kRFC3339Pattern);
  return parser;
}

// ---- formatting ------------------------------------------------------------

icu::DateFormat::EStyle icuStyle(PXDateFormatterStyle style) {
  switch (style) {
    case PXDateFormatterShortStyle:
      return icu::DateFormat::kShort;
    case PXDateFormatterMediumStyle:
      return icu::DateFormat::kMedium;
    case PXDateFormatterLongStyle:
      return icu::DateFormat::kLong;
    case PXDateFormatterFullStyle:
      return icu::DateFormat::kFull;
    case PXDateFormatterNoStyle:
      break;
  }
  return icu::DateFormat::kNone;
}

// The user's zone as the kit's calendar knows it; a zone ICU does not know by
// name (a POSIX rule in TZ) becomes its fixed offset at `date`.
icu::TimeZone* userTimeZone(PXDate date) {
  const std::string name = PXCalendar::timeZoneName();
  icu::TimeZone* zone = icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(name));
  if (*zone == icu::TimeZone::getUnknown()) {
    delete zone;
    zone =
        new icu::SimpleTimeZone(PXCalendar::secondsFromGMT(date) * 1000, icu::UnicodeString::fromUTF8(name));
  }
  return zone;
}

}  // namespace

// ---- interface -------------------------------------------------------------

void splitTimeInterval(double timeInterval, int* inYears, int* days, int* hours, int* minutes,
                       int* seconds) noexcept {
  // Hours are not cleared: kept on purpose, see docs/compatibility.md.
  if (inYears) *inYears = 0;
  if (days) *days = 0;
  if (minutes) *minutes = 0;
  if (seconds) *seconds = 0;

  double rest = timeInterval;
  if (timeInterval >= kPXSecondsPerYear && inYears) {
    *inYears = wholeCount(std::floor(timeInterval / kPXSecondsPerYear));
    rest = timeInterval - *inYears * kPXSecondsPerYear;
  }
  if (rest >= kPXSecondsPerDay && days) {
    *days = wholeCount(std::floor(rest / kPXSecondsPerDay));
    rest -= *days * kPXSecondsPerDay;
  }
  if (rest >= kPXSecondsPerHour && hours) {
    *hours = wholeCount(std::floor(rest / kPXSecondsPerHour));
    rest -= *hours * kPXSecondsPerHour;
  }
  if (rest >= kPXSecondsPerMinute && minutes) {
    *minutes = wholeCount(std::floor(rest / kPXSecondsPerMinute));
    rest -= *minutes * kPXSecondsPerMinute;
  }
  if (seconds) *seconds = wholeCount(std::floor(rest));
}

PXString stringFromTimeInterval(double timeInterval, bool withYears, bool days, bool hours, bool minutes,
                                bool seconds, bool omitUnused) {
  struct Unit {
    bool wanted;
    int count;
    const char* singular;
    const char* plural;
  };
  Unit units[] = {
      {withYears, 0, "year", "years"},   {days, 0, "day", "days"},          {hours, 0, "hour", "hours"},
      {minutes, 0, "minute", "minutes"}, {seconds, 0, "second", "seconds"},
  };
  auto out = [](Unit& unit) { return unit.wanted ? &unit.count : nullptr; };
  splitTimeInterval(timeInterval, out(units[0]), out(units[1]), out(units[2]), out(units[3]), out(units[4]));

  const pxkit::internal::LocalizedStringTable table =
      pxkit::internal::LocalizedStringTable::current("Localizable");
  std::string result;
  for (const Unit& unit : units) {
    if (!unit.wanted) continue;
    bool otherShown = false;
    for (const Unit& other : units) otherShown |= &other != &unit && other.wanted && other.count != 0;
    const bool omitThis = omitUnused && otherShown;
    if (unit.count == 0 && omitThis) continue;
    if (!result.empty()) result += ' ';
    const PXString word = table.localizedString(unit.count == 1 ? unit.singular : unit.plural);
    result += PXFormat("%ld %@", static_cast<long>(unit.count), word).view();
  }
  return PXString(result);
}

PXString localizedStringFormattedWithDateStyle(PXDate date, PXDateFormatterStyle dateStyle,
                                               PXDateFormatterStyle timeStyle) {
  // A formatter asked for neither part writes nothing (ICU would fall back to a default pattern).
  if (icuStyle(dateStyle) == icu::DateFormat::kNone && icuStyle(timeStyle) == icu::DateFormat::kNone)
    return PXString("");
  const icu::Locale locale =
      icu::Locale::createCanonical(pxkit::internal::currentLocaleIdentifier("LC_TIME").c_str());
  std::unique_ptr<icu::DateFormat> format(
      icu::DateFormat::createDateTimeInstance(icuStyle(dateStyle), icuStyle(timeStyle), locale));
  if (!format) return PXString("");
  format->adoptTimeZone(userTimeZone(date));
  icu::UnicodeString text;
  format->format(date.timeIntervalSince1970() * 1000.0, text);
  std::string utf8;
  text.toUTF8String(utf8);
  return PXString(utf8);
}

std::optional<PXDate> dateFromISO8601DateString(std::string_view string) {
  TimestampParser* parser = iso8601Parser();
  if (!parser) return std::nullopt;
  return parser->parse(string);
}

std::optional<PXDate> dateFromRFC3339DateString(std::string_view string) {
  TimestampParser* parser = rfc3339Parser();
  if (!parser || string.size() > kPXMaxTimestampLength) return std::nullopt;
  size_t start = string.find('+');
  if (start == std::string_view::npos) start = string.find('-');
  if (start == std::string_view::npos) return parser->parse(string);
  // "+02:00" becomes "+0200", the zone form the pattern reads; without a "+" the
  // cut starts at the date's first "-": kept on purpose, see docs/compatibility.md.
  std::string trimmed(string.substr(0, start));
  for (char c : string.substr(start))
    if (c != ':') trimmed += c;
  return parser->parse(trimmed);
}

}  // namespace PXDateTools
