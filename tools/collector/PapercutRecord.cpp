// Reading a submission document: the document's shape, then each record's fields.
#include "PapercutRecord.h"

#include <pxkit/json/JSONDecoder.h>
#include <pxkit/json/JSONSerializer.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/platform/PXDigest.h>

#include <cmath>
#include <cstdio>
#include <limits>

namespace pxcollector {
namespace {

using Kind = PXValue::Kind;

std::string compactJSON(const PXValue& value) {
  if (value.isArray() || value.isDictionary()) return std::string(JSONString(value).view());
  // A scalar record: wrap it so the serializer takes it, then drop the brackets.
  std::string text(JSONString(PXArray::arrayWithObjects({value})).view());
  return text.size() >= 2 ? text.substr(1, text.size() - 2) : text;
}

// An integer number (not a boolean, not a fraction) that fits in 64 signed bits.
bool integerOf(const PXValue& value, int64_t* out) {
  if (value.kind() == Kind::Int) {
    *out = value.longLongValue();
    return true;
  }
  if (value.kind() == Kind::UInt &&
      value.unsignedLongLongValue() <= uint64_t(std::numeric_limits<int64_t>::max())) {
    *out = static_cast<int64_t>(value.unsignedLongLongValue());
    return true;
  }
  return false;
}

// Reads a string field into `out`. `required` fields must be present; all must be
// strings of at most `limit` bytes. Returns "" or the reason for refusing.
std::string readText(const PXDictionary& record, const char* key, bool required, size_t limit,
                     std::string* out) {
  const PXValue* value = record.findStringKey(key);
  if (!value) return required ? std::string("\"") + key + "\" is missing" : std::string();
  if (!value->isString()) return std::string("\"") + key + "\" is not a string";
  if (value->stringValue().size() > limit)
    return std::string("\"") + key + "\" is longer than " + std::to_string(limit) + " bytes";
  // Kept out: PostgreSQL text cannot hold a NUL character, and both stores take the same records.
  if (value->stringValue().find('\0') != std::string_view::npos)
    return std::string("\"") + key + "\" contains a NUL character";
  *out = std::string(value->stringValue());
  return {};
}

std::string readDataSet(const PXValue& element, size_t index, DataSet* set) {
  const std::string where = "\"metrics\"[" + std::to_string(index) + "]";
  PXRef<PXDictionary> dict = element.dictionaryValue();
  if (!dict) return where + " is not an object";
  std::string reason = readText(*dict, "identifier", true, kMaxTextLength, &set->identifier);
  if (reason.empty() && set->identifier.empty()) reason = "\"identifier\" is empty";
  if (reason.empty()) reason = readText(*dict, "primary", false, kMaxTextLength, &set->primary);
  if (reason.empty()) reason = readText(*dict, "secondary", false, kMaxTextLength, &set->secondary);
  if (!reason.empty()) return where + ": " + reason;
  const PXValue* value = dict->findStringKey("value");
  if (!value) return where + ": \"value\" is missing";
  if (!integerOf(*value, &set->value)) return where + ": \"value\" is not an integer";
  return {};
}

// Checks one record; fills `papercut` and returns "" when it passes.
std::string readPapercut(const PXDictionary& record, Papercut* papercut) {
  std::string reason = readText(record, "packageID", true, kMaxPackageIDLength, &papercut->packageID);
  if (reason.empty() && papercut->packageID.empty()) reason = "\"packageID\" is empty";
  if (reason.empty())
    reason = readText(record, "applicationID", true, kMaxTextLength, &papercut->applicationID);
  if (reason.empty()) reason = readText(record, "channel", true, kMaxTextLength, &papercut->channel);
  if (reason.empty())
    reason = readText(record, "applicationVersion", false, kMaxTextLength, &papercut->applicationVersion);
  if (!reason.empty()) return reason;

  const PXValue* timestamp = record.findStringKey("timestamp");
  if (!timestamp) return "\"timestamp\" is missing";
  if (!timestamp->isNumber() || timestamp->isBool()) return "\"timestamp\" is not a number";
  const double seconds = timestamp->doubleValue();
  if (!(seconds >= kMinTimestamp && seconds <= kMaxTimestamp)) return "\"timestamp\" is out of range";
  papercut->timestamp = static_cast<int64_t>(std::floor(seconds));

  const PXValue* days = record.findStringKey("totalUsageDays");
  if (!days) return "\"totalUsageDays\" is missing";
  if (!integerOf(*days, &papercut->totalUsageDays) || papercut->totalUsageDays < 0)
    return "\"totalUsageDays\" is not a non-negative integer";

  const PXValue* metrics = record.findStringKey("metrics");
  if (!metrics) return "\"metrics\" is missing";
  PXRef<PXArray> list = metrics->arrayValue();
  if (!list) return "\"metrics\" is not an array";
  if (list->count() > kMaxDataSetsPerPapercut)
    return "\"metrics\" has more than " + std::to_string(kMaxDataSetsPerPapercut) + " data sets";
  papercut->metrics.resize(list->count());
  for (size_t i = 0; i < list->count(); ++i) {
    reason = readDataSet(list->objectAtIndex(i), i, &papercut->metrics[i]);
    if (!reason.empty()) return reason;
  }
  return {};
}

}  // namespace

SubmissionReading readSubmission(const char* body, size_t length) {
  SubmissionReading reading;
  PXErrorRef error;
  PXValue document =
      JSONDecoder::decoder()->objectWithUTF8String(body ? body : "", body ? length : 0, &error);
  if (!document) {
    reading.error = "the body is not JSON: " + std::string(error ? error->localizedDescription().view() : "");
    return reading;
  }
  PXRef<PXDictionary> top = document.dictionaryValue();
  if (!top) {
    reading.error = "the body is not a submission document: its top level is not an object";
    return reading;
  }
  const PXValue* papercuts = top->findStringKey("papercuts");
  PXRef<PXArray> list = papercuts ? papercuts->arrayValue() : PXRef<PXArray>();
  if (!list) {
    reading.error = "the body is not a submission document: \"papercuts\" is missing or not an array";
    return reading;
  }
  for (const PXValue& element : *list) {
    Papercut papercut;
    PXRef<PXDictionary> record = element.dictionaryValue();
    std::string reason = record ? readPapercut(*record, &papercut) : "the record is not an object";
    if (reason.empty()) {
      papercut.record = compactJSON(element);
      reading.papercuts.push_back(std::move(papercut));
      continue;
    }
    RejectedRecord rejected;
    rejected.record = compactJSON(element);
    rejected.reason = std::move(reason);
    // Named in the receipt only when the identity itself is usable.
    const PXValue* id = record ? record->findStringKey("packageID") : nullptr;
    if (id && id->isString() && !id->stringValue().empty() &&
        id->stringValue().size() <= kMaxPackageIDLength) {
      rejected.packageID = std::string(id->stringValue());
      rejected.key = "package:" + rejected.packageID;
    } else {
      rejected.key = "sha256:" + std::string(PXDigest::sha256Hex(rejected.record).view());
    }
    reading.rejected.push_back(std::move(rejected));
  }
  return reading;
}

std::string dayText(int64_t day) {
  // Civil date from days since 1970 (proleptic Gregorian).
  int64_t z = day + 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  const int64_t d = doy - (153 * mp + 2) / 5 + 1;
  const int64_t m = mp < 10 ? mp + 3 : mp - 9;
  const int64_t y = yoe + era * 400 + (m <= 2 ? 1 : 0);
  char text[64];
  std::snprintf(text, sizeof text, "%04lld-%02lld-%02lld", static_cast<long long>(y),
                static_cast<long long>(m), static_cast<long long>(d));
  return text;
}

int64_t dayFromText(std::string_view text) {
  if (text.size() != 10 || text[4] != '-' || text[7] != '-') return -1;
  int64_t parts[3] = {0, 0, 0};
  const size_t starts[3] = {0, 5, 8}, lengths[3] = {4, 2, 2};
  for (int p = 0; p < 3; ++p) {
    for (size_t i = starts[p]; i < starts[p] + lengths[p]; ++i) {
      if (text[i] < '0' || text[i] > '9') return -1;
      parts[p] = parts[p] * 10 + (text[i] - '0');
    }
  }
  int64_t y = parts[0], m = parts[1], d = parts[2];
  static const int kDaysInMonth[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (m < 1 || m > 12 || d < 1 || d > kDaysInMonth[m - 1]) return -1;
  const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  if (m == 2 && d == 29 && !leap) return -1;
  y -= m <= 2 ? 1 : 0;
  const int64_t era = y / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

}  // namespace pxcollector
