#include "FWApplication.h"

#include <vector>

#include <gtest/gtest.h>

#include "FWClass.h"

namespace {

TEST(FWApplicationTest, OneInstanceForTheWholeProcess) {
  EXPECT_EQ(&FWApplication::GetInstance(), &FWApplication::GetInstance());
}

TEST(FWApplicationTest, ClassLookupIsExactAndCaseSensitive) {
  const FWApplication& registry = FWApplication::GetInstance();
  const FWClass* proxy = registry.GetClass("ProxyPort");
  ASSERT_NE(proxy, nullptr);
  EXPECT_EQ(proxy->GetName(), "ProxyPort");
  EXPECT_EQ(proxy->GetBaseName(), "FWObject");
  EXPECT_EQ(registry.GetClass("proxyport"), nullptr);
  EXPECT_EQ(registry.GetClass("Proxy"), nullptr);
  EXPECT_EQ(registry.GetClass(""), nullptr);
  EXPECT_EQ(registry.GetClass("FWObject"), nullptr);
  EXPECT_EQ(registry.GetClass("Zebra"), nullptr);
}

TEST(FWApplicationTest, ClassesAreSortedByName) {
  const std::vector<const FWClass*>& classes = FWApplication::GetInstance().GetClasses();
  ASSERT_EQ(classes.size(), 3u);
  EXPECT_EQ(classes[0]->GetName(), "MonitoringPort");
  EXPECT_EQ(classes[1]->GetName(), "ProxyPort");
  EXPECT_EQ(classes[2]->GetName(), "SessionManager");
  EXPECT_EQ(FWApplication::GetInstance().GetClass("SessionManager"), classes[2]);
}

TEST(FWApplicationTest, NoEnumerationIsRegistered) {
  EXPECT_EQ(FWApplication::GetInstance().GetEnum(""), nullptr);
  EXPECT_EQ(FWApplication::GetInstance().GetEnum("ProxyPort"), nullptr);
}

}  // namespace
