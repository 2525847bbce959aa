// How observing reads the value it reports: a key the object does not know,
// or a getter override that raises, reads as absent (reported as null) and
// never raises on behalf of the setter announcing the change.
#include <gtest/gtest.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXObject.h>

#include <string>
#include <vector>

namespace {

// "plain" reads 7, "raising" raises an exception of the kit that is not an
// undefined key, "self" is the object itself (for paths); anything else is undefined.
class ReadNode : public PXObject {
  PX_DECLARE_CLASS(ReadNode)
 public:
  PXValue valueForKey(std::string_view key) const override {
    if (key == "plain") return 7;
    if (key == "raising") throw PXException("ReadNodeException", "unreadable");
    if (key == "self") return PXValue(PXRef<ReadNode>(const_cast<ReadNode*>(this)));
    return PXObject::valueForKey(key);
  }
};
PX_DEFINE_CLASS(ReadNode, PXObject, nullptr)

class NewValues : public PXObject {
 public:
  std::vector<std::string> seen;
  void observeValueForKeyPath(const PXString&, PXObject*, const PXDictionary& change, void*) override {
    seen.push_back(change.objectForKey(kPXKeyValueChangeNewKey).description().str());
  }
};

TEST(PXKeyValueObservingRead, UnreadableValuesAreReportedAsNull) {
  struct Row {
    const char* keyPath;
    const char* reported;
  };
  for (Row row :
       {Row{"plain", "7"}, Row{"self.plain", "7"}, Row{"unknown", "<null>"}, Row{"raising", "<null>"},
        Row{"raising.plain", "<null>"}, Row{"self.raising", "<null>"}, Row{"unknown.plain", "<null>"}}) {
    auto node = PXMake<ReadNode>();
    auto observer = PXMake<NewValues>();
    EXPECT_NO_THROW(node->addObserver(observer.get(), row.keyPath,
                                      PXKeyValueObservingOptionInitial | PXKeyValueObservingOptionNew,
                                      nullptr))
        << row.keyPath;
    EXPECT_EQ(observer->seen, std::vector<std::string>{row.reported}) << row.keyPath;
    node->removeObserver(observer.get(), row.keyPath);
  }
}

}  // namespace
