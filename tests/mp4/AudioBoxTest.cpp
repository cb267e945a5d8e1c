#include <gtest/gtest.h>

#include <string>

#include "mp4/AudioBoxBuilders.h"
#include "platform/Error.h"
#include "support/BoxBuilder.h"

namespace tarn {
namespace {

using namespace test;

constexpr const char* matrix = "00010000 00000000 00000000 00000000 00010000 00000000 00000000 00000000 40000000 ";
constexpr const char* esds48 =
    "00000027 'esds' 00000000 03 19 0000 00 04 11 40 15 000000 0001F400 0001F400 05 02 1190 06 01 02";

TEST(AudioBoxes, StandByteForByte) {
  const std::string zeros24(48, '0');
  const std::pair<Bytes, std::string> rows[] = {
      {audioSpecificConfig(48000), "1190"},
      {audioSpecificConfig(44100), "1210"},
      {audioSpecificConfig(24000), "1310"},
      {audioSpecificConfig(32000), "1190"},
      {audioSpecificConfig(48000, 1), "1188"},
      {buildEsdsBox(48000), esds48},
      {buildStsdBox(44100, 48000), std::string("0000005B 'stsd' 00000000 00000001 0000004B 'mp4a' 000000000000 0001 "
                                               "0000000000000000 0002 0010 0000 0000 AC440000 ") +
                                       esds48},
      {buildFtypBox(), "0000001C 'ftypM4A ' 00000000 'M4A isommp42'"},
      {buildSmhdBox(), "00000010 'smhd' 00000000 0000 0000"},
      {buildDinfBox(), "00000024 'dinf' 0000001C 'dref' 00000000 00000001 0000000C 'url ' 00000001"},
      {buildHdlrBox(), "0000002D 'hdlr' 00000000 00000000 'soun' 000000000000000000000000 'SoundHandler' 00"},
      {buildMdhdBox(48000, 1024), "00000020 'mdhd' 00000000 00000000 00000000 0000BB80 00000400 55C4 0000"},
      {buildTkhdBox(1024), std::string("0000005C 'tkhd' 00000003 00000000 00000000 00000001 00000000 00000400 "
                                       "0000000000000000 0000 0000 0100 0000 ") +
                               matrix + "00000000 00000000"},
      {buildMvhdBox(48000, 1024), std::string("0000006C 'mvhd' 00000000 00000000 00000000 0000BB80 00000400 00010000 "
                                              "0100 00000000000000000000 ") +
                                      matrix + zeros24 + "00000002"},
  };
  for (const auto& [box, hex] : rows) EXPECT_EQ(box, bytesFrom(hex)) << hex;
}

TEST(AudioBoxes, RefuseWhatDoesNotFit) {
  EXPECT_THROW(buildMdhdBox(-1, 0), Error);
  EXPECT_THROW(buildMvhdBox(48000, int64_t{1} << 32), Error);
  EXPECT_THROW(buildTkhdBox(-5), Error);
  EXPECT_THROW(buildStsdBox(48000, 48000, 3), Error);
  EXPECT_THROW(buildStsdBox(int64_t{1} << 32, 48000), Error);
  EXPECT_TRUE(canBeDescribed(24000, 1) && canBeDescribed(44100, 2));
  EXPECT_FALSE(canBeDescribed(32000, 2) || canBeDescribed(48000, 0) || canBeDescribed(48000, 3));
}

}  // namespace
}  // namespace tarn
