#include <gtest/gtest.h>

#include "parameters/AVCConfigurationBox.h"
#include "parameters/HEVCConfigurationBox.h"
#include "support/BoxBuilder.h"
#include "support/LogCapture.h"
#include "support/ParameterSetBuilder.h"

namespace tarn {
namespace {

using namespace test;

Bytes hevcRecord(const Bytes& sps) {
  return HEVCConfigurationBox({}, {}, {}, {sps}, 4, true).buildDecoderConfigRecord();
}

Bytes avcRecord(const Bytes& sps) {
  return AVCConfigurationBox({{0x67, 1}}, {{0x68, 2, 3}}, {Bytes(sps.begin() + 1, sps.end())}, 4)
      .buildDecoderConfigRecord();
}

class ConfigurationBoxes : public testing::Test {
  LogCapture log_;
};

TEST_F(ConfigurationBoxes, SayWhatCanBeReadOfOddSets) {
  const Bytes shortest = HEVCSPS{.profile = 2, .level = 60, .width = 64, .height = 64}.bytes();
  const HEVCSPS layered{.maxSubLayersMinus1 = 1,
                        .subLayerProfiles = true,
                        .chromaFormat = 3,
                        .separatePlanes = true,
                        .height = 0,
                        .lumaDepthMinus8 = 9,
                        .chromaDepthMinus8 = 2};
  const std::string arrays = " 03 a00000 a10000 a20000";
  const std::pair<Bytes, std::string> cases[] = {
      // A depth of 16, which the field cannot hold.
      {hevcRecord(HEVCSPS{.lumaDepthMinus8 = 8}.bytes()),
       "01 01 00000000 000000000000 5d f000 fc fd f8 f8 0000 0f" + arrays},
      {hevcRecord({shortest.begin(), shortest.begin() + 20}),
       "01 01 00000000 000000000000 5d f000 fc fd f8 f8 0000 0f" + arrays},
      // What the strict reader refuses, the forgiving one takes, compatibility and constraint flags included.
      {hevcRecord(layered.bytes()), "01 01 60000000 900000000000 5d f000 fc ff ff fa 0000 17" + arrays},
      {avcRecord({0x67, 100, 0, 40}), "01 42001e ff e1 00026701 01 0003680203"},
  };
  for (const auto& [record, expected] : cases) EXPECT_EQ(record, bytesFrom(expected)) << expected;
}

TEST_F(ConfigurationBoxes, StateChromaAndDepthsForFourProfiles) {
  const std::pair<uint8_t, const char*> cases[] = {
      {100, "fe f9 fb 00"}, {110, "fe f9 fb 00"}, {122, "fe f9 fb 00"}, {144, "fe f9 fb 00"}, {77, ""}, {244, ""}};
  for (const auto& [profile, last] : cases) {
    const Bytes sps = BitBuilder().bits(0x67, 8).bits(profile, 8).bits(40, 16).ue(0).ue(2).ue(1).ue(3).bytes();
    EXPECT_EQ(avcRecord(sps), bytesFrom(fmt::format("01 {:02x}0028 ff e1 00026701 01 0003680203 {}", profile, last)));
  }
  // Chroma format and depths of the chroma planes beyond what there is, behind a flag of their separation.
  const Bytes beyond = BitBuilder().bits(0x67640028, 32).ue(0).ue(4).bits(0, 1).ue(1).ue(9).bytes();
  EXPECT_EQ(avcRecord(beyond), bytesFrom("01 640028 ff e1 00026701 01 0003680203 ff f9 fe 00"));
}

TEST_F(ConfigurationBoxes, RefuseWhatDoesNotFit) {
  auto hvcC = [](std::vector<Bytes> units) { return HEVCConfigurationBox(std::move(units), {}, {}, {}, 4, true); };
  EXPECT_NO_THROW(hvcC({Bytes(65535)}).buildHvcCBox());
  EXPECT_THROW(hvcC({Bytes(65536)}).buildHvcCBox(), ConfigurationBoxError);
  EXPECT_THROW(hvcC(std::vector<Bytes>(65536)).buildHvcCBox(), ConfigurationBoxError);
  EXPECT_THROW(hevcRecord(HEVCSPS{.maxSubLayersMinus1 = 7}.bytes()), ConfigurationBoxError);
  EXPECT_THROW(AVCConfigurationBox({}, {Bytes(65536)}, {}, 4).buildAvcCBox(), ConfigurationBoxError);
  for (int size : {0, 3, 8}) EXPECT_THROW(AVCConfigurationBox({}, {}, {}, size), ConfigurationBoxError);

  std::vector<Bytes> many(300, Bytes{0x68});
  auto avc = readAvcC(AVCConfigurationBox(many, many, {}, 4).buildDecoderConfigRecord());
  EXPECT_EQ(avc.spsArray.size(), 31u);
  EXPECT_EQ(avc.ppsArray.size(), 255u);
}

TEST_F(ConfigurationBoxes, AreReadBackUnlessCutOff) {
  auto refuses = [](auto read, Bytes record) {
    while (!record.empty()) {
      record.pop_back();
      EXPECT_THROW(read(record), ConfigurationBoxError) << record.size();
    }
  };
  Bytes sps = HEVCSPS{.lumaDepthMinus8 = 2}.bytes();
  std::vector<Bytes> pps = {hevcPPS(0, 1), hevcPPS(1, 2)};
  Bytes hvcC = HEVCConfigurationBox({hevcVPS(0, 1)}, {sps}, pps, {sps}, 2, true).buildDecoderConfigRecord();
  auto hevc = readHvcC(hvcC);
  EXPECT_EQ(hevc.bitDepthLumaMinus8, 2);
  EXPECT_EQ(hevc.lengthSizeMinusOne, 1);
  EXPECT_EQ(hevc.arrays.at(2).nalUnits, pps);
  EXPECT_TRUE(hevc.arrays.at(2).arrayCompleteness && hevc.hasAllParameterSets());
  refuses(readHvcC, hvcC);

  // The real damage: a record that has lost its arrays.
  hvcC.resize(23);
  hvcC[22] = 0;
  EXPECT_FALSE(readHvcC(hvcC).hasAllParameterSets());
  EXPECT_FALSE(readAvcC(Bytes{1, 100, 0, 40, 0xFF, 0xE0, 0}).hasAllParameterSets());

  Bytes avcC = avcRecord(AVCSPS{}.bytes());
  EXPECT_EQ(readAvcC(avcC).ppsArray, (std::vector<Bytes>{{0x68, 2, 3}}));
  avcC.resize(avcC.size() - 4);  // many writers leave the last four fields out
  EXPECT_TRUE(readAvcC(avcC).hasAllParameterSets());
  refuses(readAvcC, avcC);
}

}  // namespace
}  // namespace tarn
