// The JSON facade in a process that has a platform JSON service: everything is
// forwarded to it, except reading from a stream, which never returns.
#include <gtest/gtest.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/objects/PXObject.h>

#include <sstream>
#include <string>

// A stand-in platform service that logs each call with its options and answers
// what the built-in codec never would.
class NSJSONSerialization : public PXObject, public PXJSONPlatformService {
  PX_DECLARE_CLASS(NSJSONSerialization)
 public:
  static std::string& log() {
    static std::string text;
    return text;
  }
  bool isValidJSONObject(const PXValue&) override {
    log() += "valid;";
    return true;
  }
  PXRef<PXData> dataWithJSONObject(const PXValue& object, unsigned options, PXErrorRef* error) override {
    log() += "data " + std::to_string(options) + ";";
    if (!object.isDate()) return PXData::dataWithString("from the platform");
    PXSetError(error, PXError::errorWithDomain("PlatformDomain", 42));
    return {};
  }
  PXValue JSONObjectWithData(const PXData* data, unsigned options, PXErrorRef*) override {
    log() += "read " + std::to_string(options) + ";";
    return PXValue(data->view());
  }
  int64_t writeJSONObject(const PXValue&, std::ostream& stream, unsigned options, PXErrorRef*) override {
    log() += "write " + std::to_string(options) + ";";
    stream << "written";
    return 7;
  }
};

PX_DEFINE_CLASS(NSJSONSerialization, PXObject, [](PXClassBuilder<NSJSONSerialization>& c) { c.factory(); })

TEST(PXJSONSerializationPlatform, OperationsAreForwardedWithAllTheirArguments) {
  EXPECT_TRUE(PXJSONSerialization::isNSJSONSerializationAvailable())
      << "the platform service is found by name";
  // A date is invalid for the built-in codec; the platform decides here.
  EXPECT_TRUE(PXJSONSerialization::isValidJSONObject(PXValue(PXDate(0))));
  PXErrorRef error;
  auto data = PXJSONSerialization::dataWithJSONObject(PXValue::null(), 0x5, &error);
  ASSERT_TRUE(data);
  EXPECT_EQ(data->view(), "from the platform");
  EXPECT_FALSE(PXJSONSerialization::dataWithJSONObject(PXValue(PXDate(0)), 0, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "PlatformDomain");  // the platform's own error, unchanged
  PXValue read =
      PXJSONSerialization::JSONObjectWithData(PXData::dataWithString("not even JSON"), 0x3, nullptr);
  EXPECT_EQ(read.stringValue(), "not even JSON");
  EXPECT_EQ(PXJSONSerialization::JSONify(1), "from the platform");
  std::ostringstream out;
  EXPECT_EQ(PXJSONSerialization::writeJSONObject(PXValue(1), out, 0x9, nullptr), 7);
  EXPECT_EQ(out.str(), "written");
  EXPECT_EQ(NSJSONSerialization::log(), "valid;data 5;data 0;read 3;valid;data 0;write 9;");
}

TEST(PXJSONSerializationPlatformDeathTest, ReadingAStreamNeverReturns) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::istringstream in("[1]");
  EXPECT_DEATH((void)PXJSONSerialization::JSONObjectWithStream(in, 0, nullptr), "");
  EXPECT_TRUE(NSJSONSerialization::log().empty());  // and nothing reached the platform service
}
