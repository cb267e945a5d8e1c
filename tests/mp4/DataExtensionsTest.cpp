#include <gtest/gtest.h>

#include "mp4/DataExtensions.h"

namespace tarn {
namespace {

TEST(DataExtensions, PatchesOnlyWhatLiesInTheData) {
  Bytes data(6, 0xFF);
  writeUInt32(data, 0x01020304, 2);
  EXPECT_EQ(readUInt32(data, 2), 0x01020304u);
  for (size_t at : {size_t{3}, size_t{6}, SIZE_MAX - 1}) {
    writeUInt32(data, 0, at);
    writeUInt64(data, 0, at);
    EXPECT_EQ(readUInt32(data, at), std::nullopt);
    EXPECT_EQ(readUInt64(data, at), std::nullopt);
  }
  EXPECT_EQ(data, (Bytes{0xFF, 0xFF, 1, 2, 3, 4}));
}

TEST(DataExtensions, TakesUTF8AsTheStandardHasIt) {
  for (const char* text : {"avc1", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x8E\xAC", ""}) {
    EXPECT_EQ(decodeUTF8(bytesOf(text)), text);
  }
  for (const char* text :
       {"\x80", "\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF", "\xC3("}) {
    EXPECT_EQ(decodeUTF8(bytesOf(text)), "") << testing::PrintToString(text);
  }
}

}  // namespace
}  // namespace tarn
