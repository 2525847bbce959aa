// The JSON facade in a process that has a platform JSON service: everything is
// forwarded to it, except reading from a stream, which never returns.
#include <gtest/gtest.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXObject.h>

#include <sstream>
#include <string>
#include <vector>

// A stand-in platform service that records what it is asked and answers what
// the built-in codec never would.
class NSJSONSerialization : public PXObject, public PXJSONPlatformService {
  PX_DECLARE_CLASS(NSJSONSerialization)
 public:
  static std::vector<std::string>& calls() {
    static std::vector<std::string> list;
    return list;
  }
  static unsigned& lastOptions() {
    static unsigned options = 0;
    return options;
  }

  bool isValidJSONObject(const PXValue&) override {
    calls().push_back("isValidJSONObject");
    return true;
  }
  PXRef<PXData> dataWithJSONObject(const PXValue& object, unsigned options, PXErrorRef* error) override {
    calls().push_back("dataWithJSONObject");
    lastOptions() = options;
    if (object.isDate()) {
      PXSetError(error, PXError::errorWithDomain("PlatformDomain", 42));
      return {};
    }
    return PXData::dataWithString("from the platform");
  }
  PXValue JSONObjectWithData(const PXData* data, unsigned options, PXErrorRef*) override {
    calls().push_back("JSONObjectWithData");
    lastOptions() = options;
    return PXValue(data ? data->view() : std::string_view("no data"));
  }
  int64_t writeJSONObject(const PXValue&, std::ostream& stream, unsigned options, PXErrorRef*) override {
    calls().push_back("writeJSONObject");
    lastOptions() = options;
    stream << "written";
    return 7;
  }
};

PX_DEFINE_CLASS(NSJSONSerialization, PXObject, [](PXClassBuilder<NSJSONSerialization>& c) { c.factory(); })

TEST(PXJSONSerializationPlatform, OperationsAreForwardedWithAllTheirArguments) {
  NSJSONSerialization::calls().clear();
  EXPECT_TRUE(PXJSONSerialization::isNSJSONSerializationAvailable())
      << "the platform service is found by name";
  // A date is invalid for the built-in codec; the platform decides here.
  EXPECT_TRUE(PXJSONSerialization::isValidJSONObject(PXValue(PXDate(0))));

  PXErrorRef error;
  auto data = PXJSONSerialization::dataWithJSONObject(PXValue::null(), 0x5, &error);
  ASSERT_TRUE(data);
  EXPECT_EQ(data->view(), "from the platform");
  EXPECT_EQ(NSJSONSerialization::lastOptions(), 0x5u);
  EXPECT_FALSE(PXJSONSerialization::dataWithJSONObject(PXValue(PXDate(0)), 0, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "PlatformDomain");  // the platform's own error, unchanged

  PXValue read =
      PXJSONSerialization::JSONObjectWithData(PXData::dataWithString("not even JSON"), 0x3, nullptr);
  EXPECT_EQ(read.stringValue(), "not even JSON");
  EXPECT_EQ(NSJSONSerialization::lastOptions(), 0x3u);

  EXPECT_TRUE(PXJSONSerialization::JSONify(PXValue(PXDate(0))).isAbsent());  // valid, but not written
  EXPECT_EQ(PXJSONSerialization::JSONify(1), "from the platform");

  std::ostringstream out;
  EXPECT_EQ(PXJSONSerialization::writeJSONObject(PXValue(1), out, 0x9, nullptr), 7);
  EXPECT_EQ(out.str(), "written");
  EXPECT_EQ(NSJSONSerialization::lastOptions(), 0x9u);

  const std::vector<std::string> expected = {"isValidJSONObject",  "dataWithJSONObject", "dataWithJSONObject",
                                             "JSONObjectWithData", "isValidJSONObject",  "dataWithJSONObject",
                                             "isValidJSONObject",  "dataWithJSONObject", "writeJSONObject"};
  EXPECT_EQ(NSJSONSerialization::calls(), expected);
}

TEST(PXJSONSerializationPlatformDeathTest, ReadingAStreamNeverReturns) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::istringstream in("[1]");
  EXPECT_DEATH((void)PXJSONSerialization::JSONObjectWithStream(in, 0, nullptr), "");
  EXPECT_TRUE(NSJSONSerialization::calls().empty());  // and nothing reached the platform service
}
