#include "FWIterator.h"

#include <functional>
#include <list>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "FWException.h"
#include "MonitoringPort.h"
#include "ProxyPort.h"
#include "SessionManager.h"

namespace {

using PortAccessor = TypedAccessor<std::list<ProxyPort*>>;

std::string FailureOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const FWException& e) {
    return e.GetFullText();
  }
  return "no failure";
}

class FWIteratorTest : public ::testing::Test {
 protected:
  ObjectIterator Begin() {
    return ObjectIterator(std::make_unique<PortAccessor>(&ports_, ports_.begin()));
  }
  ObjectIterator End() {
    return ObjectIterator(std::make_unique<PortAccessor>(&ports_, ports_.end()));
  }
  void TearDown() override {
    for (ProxyPort* port : ports_) delete port;
  }

  std::list<ProxyPort*> ports_;  // owns its ports, like a session manager's list
};

TEST_F(FWIteratorTest, BareAccessorFailsEveryOperationWithItsOwnLine) {
  VirtualAccessor bare;
  EXPECT_FALSE(bare.IsTyped());
  EXPECT_EQ(FailureOf([&] { bare.Decrement(); }),
            "Internal consistency error (src/FWIterator: 30)");
  EXPECT_EQ(FailureOf([&] { bare.Delete(); }), "Internal consistency error (src/FWIterator: 31)");
  EXPECT_EQ(FailureOf([&] { bare.Get(); }), "Internal consistency error (src/FWIterator: 32)");
  EXPECT_EQ(FailureOf([&] { bare.Increment(); }),
            "Internal consistency error (src/FWIterator: 33)");
  EXPECT_EQ(FailureOf([&] { bare.Insert(nullptr); }),
            "Internal consistency error (src/FWIterator: 34)");
  EXPECT_EQ(FailureOf([&] { bare.IsEqual(&bare); }),
            "Internal consistency error (src/FWIterator: 35)");
  const std::unique_ptr<VirtualAccessor> copy(bare.Clone());
  EXPECT_FALSE(copy->IsTyped());
}

TEST_F(FWIteratorTest, InsertAtEndAppendsInOrderAndWalksBothWays) {
  ObjectIterator end = End();
  auto* first = new MonitoringPort();
  auto* second = new MonitoringPort();
  end.Insert(first);
  EXPECT_EQ(*end, first);
  ++end;
  end.Insert(second);
  ++end;
  EXPECT_TRUE(end == End());
  ASSERT_EQ(ports_.size(), 2u);
  EXPECT_EQ(ports_.front(), first);

  ObjectIterator position = Begin();
  position.Advance(2);
  EXPECT_TRUE(position == End());
  --position;
  EXPECT_EQ(*position, second);
  const ObjectIterator copy = position;
  EXPECT_TRUE(copy == position);
  ++position;
  EXPECT_TRUE(copy != position);
}

TEST_F(FWIteratorTest, DeleteRemovesTheElementAndMovesToTheNext) {
  ports_.push_back(new MonitoringPort());
  auto* kept = new MonitoringPort();
  ports_.push_back(kept);
  ObjectIterator position = Begin();
  position.Delete();
  EXPECT_EQ(*position, kept);
  ASSERT_EQ(ports_.size(), 1u);
  position.Delete();
  EXPECT_TRUE(ports_.empty());
  EXPECT_EQ(FailureOf([&] { *position; }).rfind("Get after last record", 0), 0u);
}

TEST_F(FWIteratorTest, TypedInsertAndCompareCheckTheirArguments) {
  SessionManager manager;
  ObjectIterator end = End();
  EXPECT_EQ(FailureOf([&] { end.Insert(&manager); }),
            "Cannot cast to container member class (src/FWIterator: 55)");
  EXPECT_TRUE(ports_.empty());
  VirtualAccessor bare;
  const PortAccessor typed(&ports_, ports_.end());
  EXPECT_TRUE(typed.IsTyped());
  EXPECT_EQ(FailureOf([&] { typed.IsEqual(&bare); }),
            "Cannot cast to accessor type (src/FWIterator: 60)");
  std::list<ProxyPort*> other;
  const PortAccessor elsewhere(&other, other.end());
  EXPECT_FALSE(typed.IsEqual(&elsewhere));
}

}  // namespace
