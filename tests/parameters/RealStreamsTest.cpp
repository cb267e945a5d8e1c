#include "mp4/DataExtensions.h"
#include "parameters/AVCConfigurationBox.h"
#include "parameters/HEVCConfigurationBox.h"
#include "parameters/NALUnitParser.h"
#include "support/FileTest.h"
#include "support/MediaMaker.h"

namespace tarn {
namespace {

using namespace test;

/// The contents of the only box of this type in a file.
Bytes contentsOf(const Bytes& file, std::string_view type) {
  size_t at = textOf(file).find(type);
  ByteView contents = ByteView(file).subspan(at + 4, readUInt32(file, at - 4).value() - 8);
  return {contents.begin(), contents.end()};
}

std::string sizesOf(const ParameterSets& sets) {
  std::string text;
  for (auto [width, height] : sets.spsResolutions) text += fmt::format("{},{}", width, height);
  return text;
}

void expectMuxedHvcC(const HEVCConfigurationBox& box, ByteView contents, bool hasLayers) {
  const auto muxed = readHvcC(contents), built = readHvcC(box.buildDecoderConfigRecord());
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(built.arrays.at(i).nalUnitType, muxed.arrays.at(i).nalUnitType);
    EXPECT_EQ(built.arrays.at(i).nalUnits, muxed.arrays.at(i).nalUnits);
  }
  auto fields = [](const HEVCDecoderConfigurationRecord& r) {
    return std::vector<int>{r.general_tier_flag, r.general_profile_idc, r.general_level_idc,
                            r.chromaFormat,      r.bitDepthLumaMinus8,  r.bitDepthChromaMinus8,
                            r.numTemporalLayers, r.temporalIdNested,    r.lengthSizeMinusOne};
  };
  EXPECT_EQ(fields(built), fields(muxed));
  EXPECT_EQ(muxed.numTemporalLayers > 1, hasLayers);
}

class RealStreams : public FileTest {};

TEST_F(RealStreams, SetsAndRecordsAreThoseThatTheMuxerWrote) {
  const std::string inBand = "repeat-headers=1:keyint=5", layers = ":temporal-layers=1:bframes=3:b-adapt=0:open-gop=1";
  const VideoRecipe recipes[] = {
      {"libx265", inBand + ":aud=1:slices=2", "yuv420p", "190x142"},
      {"libx265", inBand + ":hdr10=1:colorprim=bt2020:transfer=smpte2084:colormatrix=bt2020nc", "yuv420p10le"},
      {"libx265", inBand, "yuv422p10le"},
      {"libx265", inBand + layers, "yuv444p"},
      {"libx264", inBand + ":profile=baseline"},
      {"libx264", inBand + ":cabac=1:8x8dct=1:slices=3:aud=1", "yuv420p", "190x142"},
      {"libx264", inBand + ":tff=1", "yuv422p10le", "192x160"},
      {"libx264", inBand + ":cqm=jvt", "yuv444p"},
  };
  for (const VideoRecipe& recipe : recipes) {
    SCOPED_TRACE(recipe.codec + recipe.pixelFormat + recipe.parameters);
    const bool isHEVC = recipe.codec == "libx265";
    const Path file = encodedVideo(recipe);
    const auto [sets, nalLengthSize] = isHEVC ? NALUnitParser::extractParameterSets(files_, file)
                                              : NALUnitParser::extractAVCParameterSets(files_, file);
    EXPECT_TRUE(sets.isCollectionComplete);
    EXPECT_FALSE(sets.requiresMultipleSampleEntries || sets.hasResolutionChanges);
    EXPECT_EQ(sizesOf(sets), probeVideo(file, isHEVC ? "coded_width,coded_height" : "width,height"));
    Bytes muxed = contentsOf(readFile(files_, file), isHEVC ? "hvcC" : "avcC");
    if (isHEVC) {
      expectMuxedHvcC({sets.vpsArray, sets.spsArray, sets.ppsArray, sets.spsRbspArray, nalLengthSize, true}, muxed,
                      recipe.parameters == inBand + layers);
    } else {
      bool has244 = muxed[1] == 244;  // whose last four fields a muxer may write and we do not
      if (has244) muxed.resize(muxed.size() - 4);
      AVCConfigurationBox built(sets.spsArray, sets.ppsArray, sets.spsRbspArray, nalLengthSize);
      EXPECT_EQ(built.buildDecoderConfigRecord(), muxed);
    }
  }
}

}  // namespace
}  // namespace tarn
