#include <gtest/gtest.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXObject.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

class KVONode : public PXObject {
  PX_DECLARE_CLASS(KVONode)
 public:
  explicit KVONode(int32_t v = 0) : value(v) {}
  // A getter that raises an exception of the kit other than an undefined key.
  PXValue valueForKey(std::string_view key) const override {
    if (key == "raising") throw PXException("KVONodeException", "unreadable");
    return PXObject::valueForKey(key);
  }
  // `counter` and `link` are safe to read and write from several threads at once.
  int64_t counter() const { return counter_.load(); }
  void setCounter(int64_t v) {
    willChangeValueForKey("counter");
    counter_.store(v);
    didChangeValueForKey("counter");
  }
  PXRef<KVONode> link() const {
    std::lock_guard lock(monitor());
    return link_;
  }
  void setLink(PXRef<KVONode> n) {
    willChangeValueForKey("link");
    {
      std::lock_guard lock(monitor());
      link_ = std::move(n);
    }
    didChangeValueForKey("link");
  }

  int32_t value = 0;

 private:
  std::atomic<int64_t> counter_{0};
  PXRef<KVONode> link_;
};

}  // namespace

PX_DEFINE_CLASS(KVONode, PXObject, [](PXClassBuilder<KVONode>& c) {
  c.property("value", &KVONode::value);
  c.computed("counter", &KVONode::counter, &KVONode::setCounter);
  c.computed("link", &KVONode::link, &KVONode::setLink);
})

namespace {

// Counts the changes it is told of, and keeps the last new value's text.
class Counter : public PXObject {
 public:
  std::atomic<int> calls{0};
  std::string lastNew;
  void observeValueForKeyPath(const PXString&, PXObject*, const PXDictionary& change, void*) override {
    if (calls.fetch_add(1) == 0) lastNew = change.objectForKey(kPXKeyValueChangeNewKey).description().str();
  }
};

// Observing never raises on behalf of a setter: an unreadable value reads as null.
TEST(PXKeyValueObserving, UnreadableValuesAreReportedAsNull) {
  for (const char* keyPath : {"value", "nothing.value", "raising", "raising.value"}) {
    auto node = PXMake<KVONode>(1);
    auto counter = PXMake<Counter>();
    node->addObserver(counter.get(), keyPath, PXKeyValueObservingOptionInitial | PXKeyValueObservingOptionNew,
                      nullptr);
    EXPECT_EQ(counter->lastNew, keyPath == std::string("value") ? "1" : "<null>") << keyPath;
    node->removeObserver(counter.get(), keyPath);
  }
}

// Registrations come and go on some threads while others change the value.
TEST(PXKeyValueObserving, ConcurrentRegistrationAndChanges) {
  auto root = PXMake<KVONode>();
  root->setLink(PXMake<KVONode>());
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 300; ++i) {
        auto counter = PXMake<Counter>();
        root->addObserver(counter.get(), "link.counter",
                          PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld, nullptr);
        if (i % 3 != 0) root->removeObserver(counter.get(), "link.counter");  // else dropped unremoved
      }
    });
  }
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; !stop.load(); ++i) {
        if (t == 0 && i % 50 == 0) {
          root->setLink(PXMake<KVONode>());
        } else if (PXRef<KVONode> link = root->link()) {
          link->setCounter(i);
        }
      }
    });
  }
  for (int t = 0; t < 3; ++t) threads[t].join();
  stop.store(true);
  for (size_t t = 3; t < threads.size(); ++t) threads[t].join();

  // Registrations whose observers are gone are pruned when the next one is
  // added; the newcomer hears exactly its own changes.
  auto counter = PXMake<Counter>();
  root->addObserver(counter.get(), "link.counter", 0, nullptr);
  root->setLink(PXMake<KVONode>());
  root->link()->setCounter(1);
  EXPECT_EQ(counter->calls.load(), 2);
}

}  // namespace
