#include "FWType.h"

#include <ctime>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "FWApplication.h"

namespace {

template <typename T>
T FromString(const std::string& text) {
  T value{};
  FWVariableFromString(value, text);
  return value;
}

template <typename T>
std::string AsString(T value) {
  std::string text;
  FWVariableAsString(value, text);
  return text;
}

TEST(FWTypeTest, IntegerFromEmptyTextIsNullAndKeepsItsValue) {
  FWVariable<int> value(5);
  value.SetFromString("");
  EXPECT_TRUE(value.IsNull());
  EXPECT_EQ(value.Get(), 5);
  EXPECT_EQ(value.GetAsString(), "");
}

TEST(FWTypeTest, IntegerReadsOnlyTheLeadingDigits) {
  FWVariable<int> value;
  value.SetFromString("12abc");
  EXPECT_FALSE(value.IsNull());
  EXPECT_EQ(value.Get(), 12);
  EXPECT_EQ(value.GetAsString(), "12");
  value.SetFromString("abc");
  EXPECT_FALSE(value.IsNull());
  EXPECT_EQ(value.Get(), 0);
  value.SetFromString("-7");
  EXPECT_EQ(value.GetAsString(), "-7");
}

TEST(FWTypeTest, ClearMakesNullAndCloneCopiesFlagAndValue) {
  FWVariable<int> value(3);
  value.Clear();
  EXPECT_TRUE(value.IsNull());
  const std::unique_ptr<FWVariable<int>> copy(value.Clone());
  EXPECT_TRUE(copy->IsNull());
  EXPECT_EQ(copy->Get(), 3);
}

TEST(FWTypeTest, ComparisonIsNullAware) {
  FWVariable<int> null_one(1);
  null_one.Clear();
  FWVariable<int> null_two(2);
  null_two.Clear();
  EXPECT_TRUE(null_one == null_two);
  EXPECT_TRUE(null_one != FWVariable<int>(1));
  EXPECT_TRUE(FWVariable<int>(0) != null_one);
  EXPECT_TRUE(FWVariable<int>(4) == FWVariable<int>(4));
  EXPECT_TRUE(FWVariable<int>(4) != FWVariable<int>(5));
}

TEST(FWTypeTest, StringIsNullExactlyWhenEmpty) {
  FWString text("a");
  EXPECT_FALSE(text.IsNull());
  EXPECT_EQ(text.GetAsString(), "a");
  text.SetFromString("");
  EXPECT_TRUE(text.IsNull());
  text.SetFromString(" b ");
  EXPECT_EQ(text, " b ");
  const std::unique_ptr<FWString> copy(text.Clone());
  EXPECT_EQ(*copy, " b ");
  text.Clear();
  EXPECT_TRUE(text.IsNull());
}

TEST(FWTypeTest, BooleanTextStartsWithOneOfTheTrueLetters) {
  for (const char* yes : {"yes", "Yes", "1", "true", "True", "t", "Y"}) {
    EXPECT_TRUE(FromString<bool>(yes)) << yes;
  }
  for (const char* no : {"no", "0", "false", "", " true", "x"}) {
    EXPECT_FALSE(FromString<bool>(no)) << no;
  }
  EXPECT_EQ(AsString(true), "true");
  EXPECT_EQ(AsString(false), "false");
}

TEST(FWTypeTest, NumberTextsUseDecimalFormats) {
  EXPECT_EQ(AsString(-42), "-42");
  EXPECT_EQ(FromString<int>(" 17x"), 17);
  EXPECT_EQ(FromString<int>(""), 0);
  EXPECT_EQ(AsString(2.5), "2.500000");
  EXPECT_DOUBLE_EQ(FromString<double>("2.25abc"), 2.25);
  EXPECT_DOUBLE_EQ(FromString<double>("x"), 0.0);
}

TEST(FWTypeTest, LongIsATimeStampInTheApplicationFormats) {
  const FWApplication& application = FWApplication::GetInstance();
  std::tm fields{};
  fields.tm_year = 2005 - 1900;
  fields.tm_mon = 4;
  fields.tm_mday = 3;
  fields.tm_hour = 14;
  fields.tm_min = 7;
  fields.tm_sec = 9;
  fields.tm_isdst = -1;
  const long stamp = static_cast<long>(std::mktime(&fields));
  EXPECT_EQ(application.GetTimeFormat(), "%b %d, %Y, %H:%M:%S");
  EXPECT_EQ(AsString(stamp), "May 03, 2005, 14:07:09");
  EXPECT_EQ(FromString<long>("May 03, 2005, 14:07:09"), stamp);
}

}  // namespace
