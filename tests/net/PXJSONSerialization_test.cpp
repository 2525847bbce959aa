// The JSON facade on a system without a platform JSON service: the built-in codec.
#include <gtest/gtest.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

PXRef<PXDictionary> dict(std::initializer_list<PXDictionary::Entry> entries) {
  return PXDictionary::dictionaryWithEntries(entries);
}
PXRef<PXArray> list(std::initializer_list<PXValue> values) {
  return PXArray::arrayWithObjects(values);
}

}  // namespace

TEST(PXJSONSerialization, ValidityFollowsTheRepresentableKinds) {
  auto selfContaining = PXMutableArray::array();
  selfContaining->addObject(PXValue(selfContaining));
  const struct {
    const char* name;
    PXValue object;
    bool valid;
  } rows[] = {
      {"string", PXValue("text"), true},
      {"integer", PXValue(3), true},
      {"double", PXValue(3.5), true},
      {"boolean", PXValue(true), true},
      {"null", PXValue::null(), true},
      {"nested", PXValue(dict({{"a", list({1, "b", PXValue::null(), dict({{"c", list({})}})})}})), true},
      {"number key", PXValue(dict({{1, "one"}})), true},
      {"absent", PXValue(), false},
      {"date", PXValue(PXDate(0)), false},
      {"data", PXValue(PXData::dataWithString("x")), false},
      {"error object", PXValue(PXError::errorWithDomain("d", 1)), false},
      {"date in an array", PXValue(list({1, PXValue(PXDate(0))})), false},
      {"date as a key", PXValue(dict({{PXValue(PXDate(0)), 1}})), false},
      {"self-containing array", PXValue(selfContaining), false},
  };
  for (const auto& row : rows)
    EXPECT_EQ(PXJSONSerialization::isValidJSONObject(row.object), row.valid) << row.name;
  selfContaining->removeAllObjects();
}

TEST(PXJSONSerialization, JSONifyGivesCompactTextOfValidObjects) {
  EXPECT_EQ(PXJSONSerialization::JSONify(list({1, "a", PXValue::null()})), "[1,\"a\",null]");
  EXPECT_EQ(PXJSONSerialization::JSONify(3.5), "3.5");
  EXPECT_EQ(PXJSONSerialization::JSONify("q\""), "\"q\\\"\"");
  EXPECT_EQ(PXJSONSerialization::dataWithJSONObject(list({1}), kPXJSONWritingPrettyPrinted)->view(),
            "[\n  1\n]");
  EXPECT_TRUE(PXJSONSerialization::JSONify(PXValue(PXDate(0))).isAbsent());
  // Valid, but a top-level null cannot be written.
  EXPECT_TRUE(PXJSONSerialization::JSONify(PXValue::null()).isAbsent());
  // Valid for the check (keys follow the value rule), refused by the writer.
  EXPECT_TRUE(PXJSONSerialization::JSONify(dict({{1, 2}})).isAbsent());
}

TEST(PXJSONSerialization, StreamsFailAtOnceWithTheirOwnErrors) {
  std::ostringstream out;
  std::istringstream in("[1, 2]");
  PXErrorRef writeError, readError;
  EXPECT_EQ(PXJSONSerialization::writeJSONObject(list({1}), out, 0, &writeError), 0);
  EXPECT_FALSE(PXJSONSerialization::JSONObjectWithStream(in, 0, &readError));
  EXPECT_TRUE(out.str().empty());
  const std::pair<PXErrorRef, const char*> rows[] = {
      {writeError, "-[PXJSONSerialization writeJSONObject:toStream:options:error:] not available"},
      {readError, "-[PXJSONSerialization JSONObjectWithStream:options:error:] not available"},
  };
  for (const auto& [error, text] : rows) {
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), "PXKitError");
    EXPECT_EQ(error->localizedDescription().str(), std::string(text) + " in built-in codec flavor");
  }
  EXPECT_EQ(writeError->code(), -1);
  EXPECT_EQ(readError->code(), -2);
  EXPECT_EQ(PXJSONSerialization::writeJSONObject(list({1}), out, 0), 0);  // no error wanted: none set
}
