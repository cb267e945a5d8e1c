#include <gtest/gtest.h>

#include <optional>

#include "parameters/AVCConfigurationBox.h"
#include "parameters/HEVCSPSParser.h"
#include "parameters/ParameterSetCollector.h"
#include "parameters/RBSPReading.h"
#include "support/ParameterSetBuilder.h"

extern "C" int32_t parseFromC(const uint8_t* data, size_t size, HEVCSPSInfo* info);

namespace tarn {
namespace {

using namespace test;

std::optional<HEVCSPSInfo> parse(const Bytes& sps) {
  HEVCSPSInfo info;
  int32_t result = parseFromC(sps.data(), sps.size(), &info);
  EXPECT_TRUE(result == 0 || result == -1);
  if (result != 0) return std::nullopt;
  return info;
}

TEST(HEVCSPSParser, ReadsWhatTheSetStates) {
  struct Case {
    const char* what;
    HEVCSPS sps;
    HEVCSPSInfo expected;
  };
  const Case cases[] = {
      {"plain", {}, {1920, 1088, 1, 8, 8, 1, 93, 0, 1, 1}},
      {"lowest compatible profile above 0",
       {.profile = 0, .compatibility = 0xA0000000},
       {1920, 1088, 1, 8, 8, 2, 93, 0, 1, 1}},
      {"compatible with 0 alone", {.profile = 0, .compatibility = 0x80000000}, {1920, 1088, 1, 8, 8, 0, 93, 0, 1, 1}},
      {"separate planes", {.chromaFormat = 3, .separatePlanes = true}, {1920, 1088, 0, 8, 8, 1, 93, 0, 1, 1}},
      {"4:4:4 of 10 and 12 bits",
       {.chromaFormat = 3, .lumaDepthMinus8 = 2, .chromaDepthMinus8 = 4},
       {1920, 1088, 3, 10, 12, 1, 93, 0, 1, 1}},
      {"largest values",
       {.width = 16384, .height = 16384, .lumaDepthMinus8 = 8},
       {16384, 16384, 1, 16, 8, 1, 93, 0, 1, 1}},
      {"window is not applied",
       {.conformanceWindow = true, .lumaDepthMinus8 = 2},
       {1920, 1088, 1, 10, 8, 1, 93, 0, 1, 1}},
      {"bare sub-layers", {.maxSubLayersMinus1 = 2, .id = 5}, {1920, 1088, 1, 8, 8, 1, 93, 0, 3, 1}},
      {"sub-layers with profile",
       {.maxSubLayersMinus1 = 6, .subLayerProfiles = true},
       {1920, 1088, 1, 8, 8, 1, 93, 0, 7, 1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    auto info = parse(c.sps.bytes());
    ASSERT_TRUE(info);
    auto fields = [](const HEVCSPSInfo& i) {
      return std::vector<uint32_t>{i.width,           i.height,
                                   i.chromaFormatIdc, i.bitDepthLuma,
                                   i.bitDepthChroma,  i.generalProfileIdc,
                                   i.generalLevelIdc, i.generalTierFlag,
                                   i.maxSubLayers,    i.temporalIdNesting};
    };
    EXPECT_EQ(fields(*info), fields(c.expected));
    if (c.sps.maxSubLayersMinus1 > 0) {
      EXPECT_EQ(parseHEVCParameterSetID(ParameterSetKind::sps, ByteView(c.sps.bytes()).subspan(2)), c.sps.id);
    }
  }
}

TEST(HEVCSPSParser, RefusesWhatItCannotRead) {
  EXPECT_FALSE(parse(HEVCSPS{.chromaFormat = 4}.bytes()));
  EXPECT_FALSE(parse(HEVCSPS{.width = 16385}.bytes()));
  EXPECT_FALSE(parse(HEVCSPS{.height = 0}.bytes()));
  EXPECT_FALSE(parse(HEVCSPS{.lumaDepthMinus8 = 9}.bytes()));
  EXPECT_FALSE(parse(HEVCSPS{.chromaDepthMinus8 = 9}.bytes()));
  HEVCSPSInfo info;
  Bytes sps = HEVCSPS{}.bytes();
  EXPECT_EQ(hevc_parse_sps(nullptr, 100, &info), -1);
  EXPECT_EQ(hevc_parse_sps(sps.data(), sps.size(), nullptr), -1);
  for (size_t size = 0; size < 19; ++size)
    EXPECT_FALSE(parse(Bytes(sps.begin(), sps.begin() + static_cast<int>(size)))) << size;

  // The end of the level byte is where the profile counts as read; the rest then reads as zeros.
  EXPECT_FALSE(parse(Bytes(14, 0)));
  info.generalLevelIdc = 1;
  EXPECT_EQ(hevc_parse_sps(sps.data(), 15, &info), -1);
  EXPECT_EQ(info.generalLevelIdc, 93);
}

TEST(AVCSPSResolution, ReadsTheCroppedSize) {
  struct Case {
    const char* what;
    AVCSPS sps;
    PictureSize expected;
  };
  const Case cases[] = {
      {"cropped", {.cropBottom = 4}, {1920, 1080}},
      {"interlaced", {.framesOnly = false}, {1920, 2176}},
      {"no high profile", {.profile = 77, .pictureOrderCountType = 2}, {1920, 1088}},
      {"order count by cycle", {.profile = 66, .pictureOrderCountType = 1, .cropRight = 3}, {1914, 1088}},
      {"scaling lists", {.scalingLists = true}, {1920, 1088}},
      {"scaling lists of 4:4:4", {.profile = 244, .chromaFormat = 3, .scalingLists = true}, {1920, 1088}},
      {"crop beyond the picture", {.widthInMbs = 1, .cropRight = 100}, {16 - 200, 1088}},
  };
  for (const Case& c : cases) {
    Bytes sps = c.sps.bytes();
    auto size = AVCConfigurationBox::parseSPSResolution(ByteView(sps).subspan(1));
    ASSERT_TRUE(size) << c.what;
    EXPECT_EQ(size->width, c.expected.width) << c.what;
    EXPECT_EQ(size->height, c.expected.height) << c.what;
  }
  EXPECT_FALSE(AVCConfigurationBox::parseSPSResolution(Bytes(9, 0xFF)));

  // A cycle of 2^31 entries in a set that holds none of them ends with the set.
  Bytes endless = BitBuilder().bits(77, 8).bits(0, 16).ue(0).ue(0).ue(1).bits(0, 1).ue(0).ue(0).ue(0x7FFFFFFF).bytes();
  EXPECT_TRUE(AVCConfigurationBox::parseSPSResolution(endless));
}

TEST(EmulationPrevention, DropsOnlyWhatPrevents) {
  struct Case {
    Bytes stored;
    Bytes cleaned;
  };
  const Case cases[] = {
      {{0x42, 0, 0, 3, 1}, {0x42, 0, 0, 1}}, {{0, 0, 3}, {0, 0, 3}},
      {{0, 0, 3, 4}, {0, 0, 3, 4}},          {{0, 0, 3, 0, 0, 3, 3}, {0, 0, 0, 0, 3}},
      {{0, 0, 3, 0, 3, 1}, {0, 0, 0, 3, 1}}, {{0, 0, 0, 3, 1}, {0, 0, 0, 1}},
      {{0, 3, 0, 3, 1}, {0, 3, 0, 3, 1}},    {{}, {}},
  };
  for (const Case& c : cases) EXPECT_EQ(removeEmulationPrevention(c.stored), c.cleaned);
}

}  // namespace
}  // namespace tarn
