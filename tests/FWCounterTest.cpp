#include "FWCounter.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(FWCounterTest, UnknownNameReadsZeroAndClearReturns42WithoutCreatingIt) {
  FWCounter counter;
  EXPECT_EQ(0u, counter.Get("never"));
  EXPECT_FALSE(counter.Exists("never"));
  EXPECT_EQ(42, counter.Clear("never"));
  EXPECT_FALSE(counter.Exists("never"));
  EXPECT_TRUE(counter.GetAll().empty());
}

TEST(FWCounterTest, IncrementAddsSetReplacesAndClearKeepsTheCounter) {
  FWCounter counter;
  counter.Increment("x", 5);
  EXPECT_TRUE(counter.Exists("x"));
  EXPECT_EQ(5u, counter.Get("x"));
  counter.Increment("x", 2);
  EXPECT_EQ(7u, counter.Get("x"));
  counter.Set("x", 1);
  EXPECT_EQ(1u, counter.Get("x"));
  EXPECT_EQ(0, counter.Clear("x"));
  EXPECT_EQ(0u, counter.Get("x"));
  EXPECT_TRUE(counter.Exists("x"));
}

TEST(FWCounterTest, SetAndIncrementByZeroCreateTheCounter) {
  FWCounter counter;
  counter.Set("set", 0);
  counter.Increment("inc", 0);
  EXPECT_TRUE(counter.Exists("set"));
  EXPECT_TRUE(counter.Exists("inc"));
  EXPECT_EQ(0u, counter.Get("set"));
  EXPECT_EQ(0, counter.Clear("inc"));
}

TEST(FWCounterTest, ValuesWrapModulo2To32) {
  FWCounter counter;
  counter.Set("x", 4294967295u);
  EXPECT_EQ(4294967295u, counter.Get("x"));
  counter.Increment("x", 1);
  EXPECT_EQ(0u, counter.Get("x"));
  counter.Set("y", 4294967290u);
  counter.Increment("y", 10);
  EXPECT_EQ(4u, counter.Get("y"));
}

TEST(FWCounterTest, NamesAreCaseSensitiveAndKeptInByteOrder) {
  FWCounter counter;
  counter.Increment("b", 1);
  counter.Increment("B", 2);
  counter.Increment("a", 3);
  counter.Increment("Active", 4);
  EXPECT_EQ(1u, counter.Get("b"));
  EXPECT_EQ(2u, counter.Get("B"));
  EXPECT_FALSE(counter.Exists("active"));
  const std::vector<std::pair<std::string, uint32_t>> expected = {
      {"Active", 4}, {"B", 2}, {"a", 3}, {"b", 1}};
  const std::vector<std::pair<std::string, uint32_t>> actual(counter.GetAll().begin(),
                                                             counter.GetAll().end());
  EXPECT_EQ(expected, actual);
}

TEST(FWCounterTest, GlobalTableIsUsable) {
  const std::string name = "FWCounterTestGlobal";
  Counter.Increment(name, 3);
  EXPECT_EQ(3u, Counter.Get(name));
}

}  // namespace
