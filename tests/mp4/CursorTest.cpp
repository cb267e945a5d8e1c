#include <gtest/gtest.h>

#include "mp4/BitReader.h"
#include "mp4/ByteArray.h"
#include "mp4/DataExtensions.h"
#include "support/ParameterSetBuilder.h"

namespace tarn {
namespace {

using namespace test;

TEST(ByteArray, ReadsBigEndianAndStaysWhereAReadFails) {
  Bytes bytes = {0, 0, 1, 2, 0, 0, 0, 1, 0, 0, 0, 2, 'm', 'o', 'o', 'v', 0xA9, 't', 'o', 'o', 9};
  ByteArray cursor(bytes);
  EXPECT_EQ(cursor.readUInt32(), 0x102u);
  EXPECT_EQ(cursor.readUInt64(), 0x100000002u);
  EXPECT_EQ(cursor.readUTF8Bytes(4), "moov");
  EXPECT_EQ(cursor.readUTF8Bytes(4), "") << "a type that is no text";
  EXPECT_EQ(cursor.readBytes(0), Bytes());
  for (auto read : {+[](ByteArray& c) { c.readUInt32(); }, +[](ByteArray& c) { c.readUInt64(); },
                    +[](ByteArray& c) { c.readBytes(2); }, +[](ByteArray& c) { c.readBytes(SIZE_MAX); }}) {
    EXPECT_THROW(read(cursor), ByteArrayError);
    EXPECT_EQ(cursor.position, 20u);
  }
  cursor.position = SIZE_MAX;
  EXPECT_THROW(cursor.readBytes(1), ByteArrayError);
}

TEST(DataExtensions, PatchesOnlyWhatLiesInTheData) {
  Bytes data(6, 0xFF);
  writeUInt32(data, 0x01020304, 2);
  EXPECT_EQ(data, (Bytes{0xFF, 0xFF, 1, 2, 3, 4}));
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

TEST(BitReader, TakesBitsFromTheTopAndSignedCodes) {
  Bytes bytes = {0xA5, 0xFF, 0x00, 0x12, 0x34};
  BitReader reader(bytes);
  EXPECT_EQ(reader.readBits(3), 5u);
  for (int odd : {33, 0, -1}) EXPECT_EQ(reader.readBits(odd), 0u);
  EXPECT_EQ(reader.bitPosition, 3);
  EXPECT_EQ(reader.readBits(32), 0x2FF80091u);
  EXPECT_EQ(reader.readBits(8), 20u) << "the 5 bits that are left, without fill";
  EXPECT_EQ(reader.readBits(8), 0u);
  EXPECT_EQ(reader.bytePosition, 5u);
  const std::pair<BitBuilder, int32_t> signedCodes[] = {{BitBuilder().bits(0b00100, 5), 2},
                                                        {BitBuilder().bits(0b00101, 5), -2},
                                                        {BitBuilder().bits(UINT32_MAX, 63), -2147483647},
                                                        {BitBuilder().bits(0, 32).bits(UINT64_MAX, 33), 0}};
  for (const auto& [code, value] : signedCodes) {
    const Bytes coded = code.bytes();
    EXPECT_EQ(BitReader(coded).readSE(), value);
  }
}

}  // namespace
}  // namespace tarn
