#include <gtest/gtest.h>
#include <pxkit/objects/PXError.h>

TEST(PXError, DescriptionsEqualityAndUserInfoSnapshot) {
  auto json = PXError::errorWithDomain("PXJSONErrorDomain", -1, PXString("Unexpected ']'."));
  EXPECT_EQ(json->localizedDescription(), "Unexpected ']'.");
  EXPECT_EQ(PXValue(json).description(),
            "Error Domain=PXJSONErrorDomain Code=-1 \"Unexpected ']'.\" UserInfo={\n"
            "    NSLocalizedDescription = \"Unexpected ']'.\";\n}");
  EXPECT_EQ(PXError::errorWithDomain("PXKitError", 42)->localizedDescription(),
            "The operation couldn\u2019t be completed. (PXKitError error 42.)");
  // A description that is not a string does not count.
  auto odd = PXError::errorWithDomain("D", 3,
                                      PXDictionary::dictionaryWithEntries({{kPXLocalizedDescriptionKey, 5}}));
  EXPECT_EQ(odd->localizedDescription(), "The operation couldn\u2019t be completed. (D error 3.)");
  auto info = PXMutableDictionary::dictionary();
  info->setObject(7, "PXJSONAtIndexKey");
  auto error = PXError::errorWithDomain("D", 1, PXRef<PXDictionary>(info));
  info->setObject(8, "PXJSONAtIndexKey");
  EXPECT_EQ(error->userInfo()->objectForKey("PXJSONAtIndexKey").intValue(), 7);
  EXPECT_FALSE(error->userInfo()->isMutable());
  auto same =
      PXError::errorWithDomain("D", 1, PXDictionary::dictionaryWithEntries({{"PXJSONAtIndexKey", 7u}}));
  EXPECT_TRUE(error->isEqual(*same));
  EXPECT_FALSE(error->isEqual(*PXError::errorWithDomain("D", 2, same->userInfo())));
  EXPECT_FALSE(error->isEqual(*PXError::errorWithDomain("E", 1, same->userInfo())));
  EXPECT_FALSE(error->isEqual(*info));
}
