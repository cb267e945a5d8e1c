#include <gtest/gtest.h>

#include "parameters/AVCConfigurationBox.h"
#include "parameters/HEVCConfigurationBox.h"
#include "support/LogCapture.h"
#include "support/ParameterSetBuilder.h"

namespace tarn {
namespace {

using namespace test;

Bytes hevcRecord(const Bytes& sps, int nalLengthSize = 4) {
  return HEVCConfigurationBox({}, {sps}, {}, {sps}, nalLengthSize, true).buildDecoderConfigRecord();
}

Bytes firstBytes(const Bytes& bytes, size_t count) {
  return {bytes.begin(), bytes.begin() + static_cast<int>(count)};
}

TEST(HEVCConfigurationBox, WritesTheRecordBitByBit) {
  Bytes sps = HEVCSPS{.level = 120, .chromaFormat = 2, .lumaDepthMinus8 = 2, .chromaDepthMinus8 = 1}.bytes();
  HEVCConfigurationBox box({}, {sps, {0x42, 1}}, {{0x44, 1, 9}}, {sps}, 2, false);
  Bytes expected = {1,
                    0x01,
                    0,
                    0,
                    0,
                    0,
                    0,
                    0,
                    0,
                    0,
                    0,
                    0,
                    120,
                    0xF0,
                    0,
                    0xFC,
                    0xFE,
                    0xFA,
                    0xF9,
                    0,
                    0,
                    0x0D,
                    3,
                    0x20,
                    0,
                    0,
                    0x21,
                    0,
                    2,
                    0,
                    static_cast<uint8_t>(sps.size())};
  expected.insert(expected.end(), sps.begin(), sps.end());
  for (int byte : {0, 2, 0x42, 1, 0x22, 0, 1, 0, 3, 0x44, 1, 9}) expected.push_back(static_cast<uint8_t>(byte));
  EXPECT_EQ(box.buildDecoderConfigRecord(), expected);

  Bytes whole = box.buildHvcCBox();
  EXPECT_EQ(firstBytes(whole, 8), (Bytes{0, 0, 0, static_cast<uint8_t>(expected.size() + 8), 'h', 'v', 'c', 'C'}));
  EXPECT_TRUE(std::equal(expected.begin(), expected.end(), whole.begin() + 8, whole.end()));

  // Complete collections, other length sizes, and the depth that the field cannot hold.
  EXPECT_EQ(hevcRecord(sps)[23], 0xA0);
  EXPECT_EQ(hevcRecord(sps)[21] & 3, 3);
  EXPECT_EQ(hevcRecord(sps, 1)[21] & 3, 0);
  EXPECT_EQ(hevcRecord(HEVCSPS{.lumaDepthMinus8 = 8}.bytes())[17], 0xF8);
}

TEST(HEVCConfigurationBox, DegradesWhereTheSPSCannotBeRead) {
  const Bytes defaults = {1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 93, 0xF0, 0, 0xFC, 0xFD, 0xF8, 0xF8, 0, 0, 0x0F};
  Bytes readable = HEVCSPS{.profile = 2, .level = 60, .width = 64, .height = 64}.bytes();
  ASSERT_GE(readable.size(), 21u);
  EXPECT_EQ(firstBytes(hevcRecord(firstBytes(readable, 20)), 22), defaults);
  EXPECT_EQ(firstBytes(hevcRecord(firstBytes(readable, 21)), 22)[12], 60);

  struct Case {
    const char* what;
    HEVCSPS sps;
    Bytes expected;  // bytes 1 to 18 of the record, then byte 21
  };
  const Case cases[] = {
      {"picture too wide",
       {.profileSpace = 1, .profile = 0, .width = 20000},
       {0x40, 0x60, 0, 0, 0, 0x90, 0, 0, 0, 0, 0, 93, 0xF0, 0, 0xFC, 0xFD, 0xF8, 0xF8, 0x0F}},
      {"separate planes, two layers",
       {.maxSubLayersMinus1 = 1,
        .subLayerProfiles = true,
        .chromaFormat = 3,
        .separatePlanes = true,
        .height = 0,
        .lumaDepthMinus8 = 9,
        .chromaDepthMinus8 = 2},
       {1, 0x60, 0, 0, 0, 0x90, 0, 0, 0, 0, 0, 93, 0xF0, 0, 0xFC, 0xFF, 0xFF, 0xFA, 0x17}},
      {"chroma format 4",
       {.maxSubLayersMinus1 = 7, .chromaFormat = 4},
       {1, 0x60, 0, 0, 0, 0x90, 0, 0, 0, 0, 0, 93, 0xF0, 0, 0xFC, 0xFF, 0xF8, 0xF8, 0x3F}},
  };
  for (const Case& c : cases) {
    Bytes record = hevcRecord(c.sps.bytes());
    Bytes seen(record.begin() + 1, record.begin() + 19);
    seen.push_back(record[21]);
    EXPECT_EQ(seen, c.expected) << c.what;
  }
}

TEST(AVCConfigurationBox, WritesTheRecordByteByByte) {
  Bytes main = AVCSPS{.profile = 77}.bytes();
  Bytes high = AVCSPS{.profile = 100, .chromaFormat = 2}.bytes();
  auto record = [](const Bytes& sps, int nalLengthSize) {
    Bytes rbsp(sps.begin() + 1, sps.end());
    return AVCConfigurationBox({{0x67, 1}}, {{0x68, 2, 3}}, {rbsp}, nalLengthSize).buildDecoderConfigRecord();
  };
  EXPECT_EQ(record(main, 2), (Bytes{1, 77, 0, 40, 0xFD, 0xE1, 0, 2, 0x67, 1, 1, 0, 3, 0x68, 2, 3}));
  EXPECT_EQ(record(high, 4),
            (Bytes{1, 100, 0, 40, 0xFF, 0xE1, 0, 2, 0x67, 1, 1, 0, 3, 0x68, 2, 3, 0xFE, 0xF8, 0xF8, 0}));
  EXPECT_EQ(record(AVCSPS{.profile = 244, .chromaFormat = 3}.bytes(), 4).size(), 16u);
  EXPECT_EQ(firstBytes(record({0x67, 100, 0, 40}, 4), 4), (Bytes{1, 66, 0, 30}));

  std::vector<Bytes> many(300, Bytes{0x68});
  auto read = readAvcC(AVCConfigurationBox(many, many, {}, 4).buildDecoderConfigRecord());
  EXPECT_EQ(read.spsArray.size(), 31u);
  EXPECT_EQ(read.ppsArray.size(), 255u);
}

TEST(ConfigurationBoxes, RefuseWhatDoesNotFit) {
  Bytes largest(65535, 1);
  Bytes tooLong(65536, 1);
  EXPECT_NO_THROW(HEVCConfigurationBox({largest}, {}, {}, {}, 4, true).buildHvcCBox());
  EXPECT_THROW(HEVCConfigurationBox({tooLong}, {}, {}, {}, 4, true).buildHvcCBox(), ConfigurationBoxError);
  EXPECT_THROW(AVCConfigurationBox({}, {tooLong}, {}, 4).buildAvcCBox(), ConfigurationBoxError);
  EXPECT_THROW(HEVCConfigurationBox({}, {}, std::vector<Bytes>(65536), {}, 4, true).buildHvcCBox(),
               ConfigurationBoxError);
  EXPECT_THROW(hevcRecord(HEVCSPS{.maxSubLayersMinus1 = 7}.bytes()), ConfigurationBoxError);
  for (int size : {0, 3, 8}) EXPECT_THROW(AVCConfigurationBox({}, {}, {}, size), ConfigurationBoxError);
}

TEST(ConfigurationBoxes, ReadBackWhatTheyWroteAndNothingThatIsCutOff) {
  Bytes sps = HEVCSPS{.lumaDepthMinus8 = 2}.bytes();
  Bytes hvcC = HEVCConfigurationBox({hevcVPS(0, 1)}, {sps}, {hevcPPS(0, 1), hevcPPS(1, 2)}, {sps}, 2, true)
                   .buildDecoderConfigRecord();
  auto hevc = readHvcC(hvcC);
  EXPECT_EQ(hevc.bitDepthLumaMinus8, 2);
  EXPECT_EQ(hevc.lengthSizeMinusOne, 1);
  ASSERT_EQ(hevc.arrays.size(), 3u);
  EXPECT_TRUE(hevc.arrays[2].arrayCompleteness);
  EXPECT_EQ(hevc.arrays[2].nalUnits, (std::vector<Bytes>{hevcPPS(0, 1), hevcPPS(1, 2)}));
  EXPECT_TRUE(hevc.hasAllParameterSets());
  for (size_t size = 0; size < hvcC.size(); ++size)
    EXPECT_THROW(readHvcC(firstBytes(hvcC, size)), ConfigurationBoxError);

  // The real damage: a record whose arrays were lost, and a count that promises more than there is.
  Bytes emptied = firstBytes(hvcC, 23);
  emptied[22] = 0;
  EXPECT_FALSE(readHvcC(emptied).hasAllParameterSets());
  emptied[22] = 255;
  EXPECT_THROW(readHvcC(emptied), ConfigurationBoxError);

  Bytes avcSPS = AVCSPS{}.bytes();
  Bytes rbsp(avcSPS.begin() + 1, avcSPS.end());
  Bytes avcC = AVCConfigurationBox({avcSPS}, {{0x68, 1}}, {rbsp}, 4).buildDecoderConfigRecord();
  auto avc = readAvcC(avcC);
  EXPECT_EQ(avc.spsArray, std::vector<Bytes>{avcSPS});
  EXPECT_EQ(avc.profileIdc, 100);
  EXPECT_TRUE(avc.hasAllParameterSets());
  size_t withoutExtension = avcC.size() - 4;
  for (size_t size = 0; size < withoutExtension; ++size) {
    EXPECT_THROW(readAvcC(firstBytes(avcC, size)), ConfigurationBoxError);
  }
  EXPECT_TRUE(readAvcC(firstBytes(avcC, withoutExtension)).hasAllParameterSets());
  EXPECT_FALSE(readAvcC(Bytes{1, 100, 0, 40, 0xFF, 0xE0, 0}).hasAllParameterSets());
}

}  // namespace
}  // namespace tarn
