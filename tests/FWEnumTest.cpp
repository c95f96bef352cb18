#include "FWEnum.h"

#include <memory>

#include <gtest/gtest.h>

#include "FWException.h"

namespace {

class FWEnumTest : public ::testing::Test {
 protected:
  void SetUp() override {
    colours_.SetName(FWString("Colour"));
    colours_.AddValue("red", "warm");
    colours_.AddValue("green", "calm");
    colours_.AddValue("red", "again");
  }

  FWEnum colours_;
};

TEST_F(FWEnumTest, IndexOfFirstMatchingCaptionAndZeroForNone) {
  EXPECT_EQ(colours_.GetIndex("green"), 1);
  EXPECT_EQ(colours_.GetIndex("red"), 0);
  EXPECT_EQ(colours_.GetIndex("blue"), 0);
  EXPECT_EQ(colours_.GetIndex("Green"), 0);
}

TEST_F(FWEnumTest, CaptionOutsideTheValuesIsEmpty) {
  EXPECT_EQ(colours_.GetCaption(-1), "");
  EXPECT_EQ(colours_.GetCaption(0), "red");
  EXPECT_EQ(colours_.GetCaption(2), "red");
  EXPECT_EQ(colours_.GetCaption(3), "");
  EXPECT_EQ(colours_.GetCaption(4), "");
  EXPECT_EQ(colours_.GetDescriptions()[1], "calm");
}

TEST_F(FWEnumTest, CopiesCompareByNameAndTheClassIsNotRegistered) {
  const std::unique_ptr<FWEnum> copy(colours_.Clone());
  EXPECT_EQ(copy->GetCaptions(), colours_.GetCaptions());
  EXPECT_TRUE(copy->IsEqual(&colours_));
  EXPECT_FALSE(colours_ == FWEnum());
  try {
    colours_.GetClass();
    FAIL() << "no failure";
  } catch (const FWEAssertionFailed& e) {
    EXPECT_EQ(e.GetFullText(), "Assertion Failed (Class) (src/FWEnum: 127)");
  }
}

}  // namespace
