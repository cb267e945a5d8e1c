#include <fmt/format.h>
#include <gtest/gtest.h>
#include <tarn/hevc.h>

#include "parameters/AVCConfigurationBox.h"
#include "parameters/detail/ParameterSetCollector.h"
#include "parameters/detail/RBSPReading.h"
#include "support/ParameterSetBuilder.h"

extern "C" int32_t parseFromC(const uint8_t* data, size_t size, HEVCSPSInfo* info);

namespace tarn {
namespace {

using namespace test;

std::string parsed(const Bytes& sps) {
  HEVCSPSInfo info;
  if (int32_t result = parseFromC(sps.data(), sps.size(), &info); result != 0) return std::to_string(result);
  return fmt::format("{}x{} chroma {} depth {}/{} profile {} level {} layers {}", info.width, info.height,
                     info.chromaFormatIdc, info.bitDepthLuma, info.bitDepthChroma, info.generalProfileIdc,
                     info.generalLevelIdc, info.maxSubLayers);
}

TEST(HEVCSPSParser, ReadsWhatTheSetStates) {
  const std::pair<HEVCSPS, const char*> cases[] = {
      {{.conformanceWindow = true, .lumaDepthMinus8 = 2}, "1920x1088 chroma 1 depth 10/8 profile 1 level 93 layers 1"},
      {{.profile = 0, .compatibility = 0xA0000000}, "1920x1088 chroma 1 depth 8/8 profile 2 level 93 layers 1"},
      {{.profile = 0, .compatibility = 0x80000000}, "1920x1088 chroma 1 depth 8/8 profile 0 level 93 layers 1"},
      {{.chromaFormat = 3, .separatePlanes = true}, "1920x1088 chroma 0 depth 8/8 profile 1 level 93 layers 1"},
      {{.chromaFormat = 3, .chromaDepthMinus8 = 8}, "1920x1088 chroma 3 depth 8/16 profile 1 level 93 layers 1"},
      {{.width = 16384, .height = 16384}, "16384x16384 chroma 1 depth 8/8 profile 1 level 93 layers 1"},
      {{.maxSubLayersMinus1 = 2, .id = 5}, "1920x1088 chroma 1 depth 8/8 profile 1 level 93 layers 3"},
      {{.maxSubLayersMinus1 = 7, .subLayerProfiles = true, .id = 9},
       "1920x1088 chroma 1 depth 8/8 profile 1 level 93 layers 8"},
      {{.id = noNumber}, "1920x1088 chroma 1 depth 8/8 profile 1 level 93 layers 1"},
      {{.width = noNumber}, "-1"},
      {{.width = 16385}, "-1"},
      {{.height = 0}, "-1"},
      {{.chromaFormat = 4}, "-1"},
      {{.lumaDepthMinus8 = 9}, "-1"},
      {{.chromaDepthMinus8 = 9}, "-1"},
  };
  for (const auto& [sps, expected] : cases) {
    EXPECT_EQ(parsed(sps.bytes()), expected);
    const uint32_t id = sps.id == noNumber ? 0 : sps.id;
    EXPECT_EQ(parseHEVCParameterSetID(ParameterSetKind::sps, ByteView(sps.bytes()).subspan(2)), id);
  }
}

TEST(HEVCSPSParser, AppliesTheWindowInUnitsOfTheChromaFormat) {
  // The window leaves out 4 units of the width and 4 of the height.
  const std::pair<HEVCSPS, const char*> cases[] = {
      {{}, "1920x1088"},
      {{.conformanceWindow = true}, "1912x1080"},
      {{.chromaFormat = 0, .conformanceWindow = true}, "1916x1084"},
      {{.chromaFormat = 2, .conformanceWindow = true}, "1912x1084"},
      {{.chromaFormat = 3, .conformanceWindow = true}, "1916x1084"},
      {{.width = 9, .height = 9, .conformanceWindow = true}, "1x1"},
      {{.width = 8, .conformanceWindow = true}, "none"},
      {{.height = 8, .conformanceWindow = true}, "none"},
      {{.width = 16385}, "none"},
  };
  for (const auto& [sps, expected] : cases) {
    const Bytes bytes = sps.bytes();
    uint32_t width = 0, height = 0;
    bool isRead = hevc_parse_sps_shown_size(bytes.data(), bytes.size(), &width, &height) == 0;
    EXPECT_EQ(isRead ? fmt::format("{}x{}", width, height) : "none", expected);
  }
}

TEST(HEVCSPSParser, RefusesSetsThatAreCutOff) {
  HEVCSPSInfo info;
  const Bytes sps = HEVCSPS{}.bytes();
  EXPECT_EQ(hevc_parse_sps(nullptr, sps.size(), &info), -1);
  EXPECT_EQ(hevc_parse_sps(sps.data(), sps.size(), nullptr), -1);
  for (size_t size = 0; size < 19; ++size) EXPECT_EQ(hevc_parse_sps(sps.data(), size, &info), -1) << size;
  // Behind the size, bits that are missing count as 0; the first 22 bytes end within the last number.
  const Bytes deep = HEVCSPS{.lumaDepthMinus8 = 1, .chromaDepthMinus8 = 8}.bytes();
  EXPECT_EQ(hevc_parse_sps(deep.data(), 22, &info), 0);
  EXPECT_EQ(info.bitDepthChroma, 15);
}

TEST(AVCSPSResolution, ReadsTheCroppedSize) {
  const std::pair<AVCSPS, PictureSize> cases[] = {
      {{.cropBottom = 4}, {1920, 1080}},
      {{.framesOnly = false}, {1920, 2176}},
      {{.heightInMapUnits = 5, .framesOnly = false, .cropBottom = 6}, {1920, 136}},
      {{.chromaFormat = 2, .framesOnly = false, .cropRight = 1, .cropBottom = 8}, {1918, 2160}},
      {{.chromaFormat = 0, .cropRight = 1, .cropBottom = 8}, {1919, 1080}},
      {{.profile = 244, .chromaFormat = 3, .cropRight = 2, .cropBottom = 8}, {1918, 1080}},
      {{.cropLeft = 3, .cropTop = 2}, {1914, 1084}},
      {{.id = noNumber}, {1920, 1088}},
      {{.profile = 66, .pictureOrderCountType = 1, .cropRight = 3}, {1914, 1088}},
      {{.profile = 244, .chromaFormat = 3, .scalingLists = true, .pictureOrderCountType = 2}, {1920, 1088}},
      {{.widthInMbs = 1, .cropRight = 100}, {16 - 200, 1088}},
  };
  for (const auto& [sps, expected] : cases) {
    Bytes bytes = sps.bytes();
    EXPECT_EQ(AVCConfigurationBox::parseSPSResolution(ByteView(bytes).subspan(1)), expected);
  }
  for (int profile = 0; profile < 256; ++profile) {
    const Bytes bytes = AVCSPS{.profile = static_cast<uint8_t>(profile), .chromaFormat = 2}.bytes();
    EXPECT_EQ(AVCConfigurationBox::parseSPSResolution(ByteView(bytes).subspan(1)), (PictureSize{1920, 1088}))
        << profile;
  }
  EXPECT_FALSE(AVCConfigurationBox::parseSPSResolution(Bytes(9, 0xFF)));

  // A cycle of 2^31 entries in a set that holds none of them ends with the set.
  Bytes endless = BitBuilder().bits(77, 8).bits(0, 16).ue(0).ue(0).ue(1).bits(0, 1).ue(0).ue(0).ue(0x7FFFFFFF).bytes();
  EXPECT_TRUE(AVCConfigurationBox::parseSPSResolution(endless));
  const Bytes cut(1);
  BitReader bits(cut);
  EXPECT_EQ(readUE(bits), 255U) << "the missing suffix counts as 0";
}

TEST(EmulationPrevention, DropsOnlyTheBytesThatPreventEmulation) {
  const std::pair<Bytes, Bytes> cases[] = {
      {{0x42, 0, 0, 3, 1}, {0x42, 0, 0, 1}}, {{9, 8, 3, 0, 0, 3}, {9, 8, 3, 0, 0, 3}},
      {{0, 0, 3, 4}, {0, 0, 3, 4}},          {{0, 0, 3, 0, 0, 3, 3}, {0, 0, 0, 0, 3}},
      {{0, 0, 3, 0, 3, 1}, {0, 0, 0, 3, 1}}, {{0, 0, 0, 3, 1}, {0, 0, 0, 1}},
  };
  for (const auto& [stored, cleaned] : cases) EXPECT_EQ(removeEmulationPrevention(stored), cleaned);
}

}  // namespace
}  // namespace tarn
