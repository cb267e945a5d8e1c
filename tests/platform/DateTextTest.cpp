#include <gtest/gtest.h>

#include "platform/DateText.h"

namespace tarn {
namespace {

TEST(DateText, isReadAsItWasWrittenAndNothingElseIs) {
  const Date date{std::chrono::seconds(1'714'566'600)};
  EXPECT_EQ(dateText(date + std::chrono::milliseconds(999)), "2024-05-01T12:30:00Z");
  EXPECT_EQ(dateOfText("2024-05-01T12:30:00Z"), date);
  for (const char* text : {"", "yesterday", "2024-05-01", "2024-05-01T12:30:00", "2024-05-01T12:30:00Z+02:00",
                           "7607-05-01T12:30:00Z", "0001-01-01T00:00:00Z"}) {
    EXPECT_EQ(dateOfText(text), Date{}) << text;
  }
}

}  // namespace
}  // namespace tarn
