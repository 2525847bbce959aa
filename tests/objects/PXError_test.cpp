#include <gtest/gtest.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXException.h>

TEST(PXError, DescriptionsFromUserInfoOrDomainAndCode) {
  auto described = PXError::errorWithDomain("PXJSONErrorDomain", -1, PXString("Invalid number."));
  EXPECT_EQ(described->localizedDescription(), "Invalid number.");
  EXPECT_EQ(described->domain(), "PXJSONErrorDomain");
  EXPECT_EQ(described->code(), -1);
  EXPECT_EQ(described->userInfo()->objectForKey(kPXLocalizedDescriptionKey).stringValue(), "Invalid number.");

  auto bare = PXError::errorWithDomain("PXKitError", 42);
  EXPECT_EQ(bare->localizedDescription(), "The operation couldn\u2019t be completed. (PXKitError error 42.)");
  ASSERT_TRUE(bare->userInfo());
  EXPECT_EQ(bare->userInfo()->count(), 0u);

  // A description that is not a string does not count.
  auto odd = PXError::errorWithDomain("D", 3,
                                      PXDictionary::dictionaryWithEntries({{kPXLocalizedDescriptionKey, 5}}));
  EXPECT_EQ(odd->localizedDescription(), "The operation couldn\u2019t be completed. (D error 3.)");

  // The description names domain, code, text and user info.
  auto error = PXError::errorWithDomain("PXJSONErrorDomain", -1, PXString("Unexpected ']'."));
  EXPECT_EQ(error->description(),
            "Error Domain=PXJSONErrorDomain Code=-1 \"Unexpected ']'.\" UserInfo={\n"
            "    NSLocalizedDescription = \"Unexpected ']'.\";\n}");
  EXPECT_EQ(PXValue(error).description(), error->description());
  EXPECT_EQ(PXValue(error).className(), "PXError");
}

TEST(PXError, EqualityAndUserInfoSnapshot) {
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
}
