#include <gtest/gtest.h>

#include <random>

#include "mp4/DataExtensions.h"
#include "parameters/AVCConfigurationBox.h"
#include "parameters/HEVCConfigurationBox.h"
#include "parameters/HEVCSPSParser.h"
#include "parameters/NALUnitParser.h"
#include "platform/host/PosixFileManager.h"
#include "support/LogCapture.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using namespace test;

struct Stream {
  std::string codec;  // 264 or 265
  std::string pixelFormat;
  std::string size;
  std::string parameters;
};

Path encode(const Stream& stream) {
  return madeByFFmpeg({"-f", "lavfi", "-i", "testsrc2=rate=25:size=" + stream.size, "-frames:v", "12", "-c:v",
                       "libx" + stream.codec, "-preset", "ultrafast", "-pix_fmt", stream.pixelFormat, "-tag:v",
                       stream.codec == "265" ? "hev1" : "avc3", "-x" + stream.codec + "-params",
                       "repeat-headers=1:keyint=5:log-level=none" + stream.parameters});
}

/// The contents of the only box of this type in a file.
Bytes contentsOf(const Bytes& file, std::string_view type) {
  size_t at = textOf(file).find(type);
  EXPECT_NE(at, std::string_view::npos);
  ByteView contents = ByteView(file).subspan(at + 4, *readUInt32(file, at - 4) - 8);
  return {contents.begin(), contents.end()};
}

const Stream hevcStreams[] = {
    {"265", "yuv420p", "190x142", ":aud=1:slices=2"},
    {"265", "yuv420p10le", "192x144", ":hdr10=1:colorprim=bt2020:transfer=smpte2084:colormatrix=bt2020nc"},
    {"265", "yuv422p10le", "192x144", ""},
    {"265", "yuv444p", "192x144", ":temporal-layers=1:bframes=3:b-adapt=0:open-gop=1"},
};
const Stream avcStreams[] = {
    {"264", "yuv420p", "192x144", ":profile=baseline"},
    {"264", "yuv420p", "190x142", ":cabac=1:8x8dct=1:bframes=2:slices=3:aud=1"},
    {"264", "yuv422p10le", "192x160", ":tff=1"},
    {"264", "yuv444p", "192x144", ":cqm=jvt"},
};

class RealStreams : public testing::Test {
 protected:
  LogCapture log_;
  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
};

TEST_F(RealStreams, HEVCSetsAndFieldsAreThoseThatTheMuxerWrote) {
  for (const Stream& stream : hevcStreams) {
    SCOPED_TRACE(stream.pixelFormat + stream.parameters);
    Path file = encode(stream);
    auto [sets, nalLengthSize] = NALUnitParser::extractParameterSets(files_, file);
    EXPECT_TRUE(sets.isCollectionComplete);
    EXPECT_FALSE(sets.requiresMultipleSampleEntries || sets.hasResolutionChanges);
    auto muxed = readHvcC(contentsOf(readFile(files_, file), "hvcC"));
    Bytes box =
        HEVCConfigurationBox(sets.vpsArray, sets.spsArray, sets.ppsArray, sets.spsRbspArray, nalLengthSize, true)
            .buildHvcCBox();
    auto built = readHvcC(ByteView(box).subspan(8));
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
    EXPECT_EQ(muxed.numTemporalLayers > 1, stream.parameters.starts_with(":temporal-layers"));
    ASSERT_EQ(sets.spsResolutions.size(), 1u);
    EXPECT_EQ(fmt::format("{},{}", sets.spsResolutions[0].width, sets.spsResolutions[0].height),
              probeVideo(file, "coded_width,coded_height"));
  }
}

TEST_F(RealStreams, AVCRecordsAreThoseThatTheMuxerWrote) {
  for (const Stream& stream : avcStreams) {
    SCOPED_TRACE(stream.pixelFormat + stream.parameters);
    Path file = encode(stream);
    auto [sets, nalLengthSize] = NALUnitParser::extractAVCParameterSets(files_, file);
    Bytes muxed = contentsOf(readFile(files_, file), "avcC");
    Bytes built =
        AVCConfigurationBox(sets.spsArray, sets.ppsArray, sets.spsRbspArray, nalLengthSize).buildDecoderConfigRecord();
    bool has244 = muxed[1] == 244;  // whose last four fields a muxer may write and we do not
    if (has244) muxed.resize(muxed.size() - 4);
    EXPECT_EQ(built, muxed);
    ASSERT_EQ(sets.spsResolutions.size(), 1u);
    EXPECT_EQ(fmt::format("{},{}", sets.spsResolutions[0].width, sets.spsResolutions[0].height),
              probeVideo(file, "width,height"));
  }
}

TEST_F(RealStreams, MutatedSetsAndSamplesGiveBoundedAnswers) {
  std::mt19937 random(4711);
  auto mutated = [&random](Bytes bytes) {
    for (uint32_t changes = 1 + random() % 4; changes > 0 && !bytes.empty(); --changes) {
      bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
    }
    if (random() % 4 == 0) bytes.resize(random() % (bytes.size() + 1));
    return bytes;
  };
  auto hevc = NALUnitParser::extractParameterSets(files_, encode(hevcStreams[3])).sets;
  auto avc = NALUnitParser::extractAVCParameterSets(files_, encode(avcStreams[3])).sets;
  size_t readable = 0;
  for (int round = 0; round < 3000; ++round) {
    Bytes sps = mutated(hevc.spsRbspArray[0]);
    HEVCSPSInfo info;
    if (hevc_parse_sps(sps.data(), sps.size(), &info) == 0) {
      ++readable;
      EXPECT_TRUE(info.width >= 1 && info.width <= 16384 && info.height >= 1 && info.height <= 16384);
      EXPECT_TRUE(info.bitDepthLuma >= 8 && info.bitDepthLuma <= 16 && info.chromaFormatIdc <= 3);
    }
    HEVCConfigurationBox hevcBox({}, {sps}, {}, {sps}, 4, true);
    AVCConfigurationBox avcBox({}, {}, {mutated(avc.spsRbspArray[0])}, 4);
    AVCConfigurationBox::parseSPSResolution(mutated(avc.spsRbspArray[0]));
    if (hevcBox.record().numTemporalLayers < 8) {
      EXPECT_NO_THROW(readHvcC(hevcBox.buildDecoderConfigRecord()));
    }
    EXPECT_NO_THROW(readAvcC(avcBox.buildDecoderConfigRecord()));
    try {
      readHvcC(mutated(
          HEVCConfigurationBox(hevc.vpsArray, hevc.spsArray, hevc.ppsArray, {}, 4, true).buildDecoderConfigRecord()));
    } catch (const ConfigurationBoxError&) {  // cut off; anything else is a fault
    }
  }
  EXPECT_GT(readable, 100u);

  for (auto extract : {NALUnitParser::extractParameterSets, NALUnitParser::extractAVCParameterSets}) {
    bool isHEVC = extract == NALUnitParser::extractParameterSets;
    Bytes original = readFile(files_, encode(isHEVC ? hevcStreams[0] : avcStreams[1]));
    for (int round = 0; round < 150; ++round) {
      Bytes bytes = original;
      for (int i = 0; i < 200; ++i) bytes[random() % bytes.size()] = static_cast<uint8_t>(random() % 70);
      writeFileAtomically(files_, directory_ / "mutated.mp4", bytes);
      try {
        auto extracted = extract(files_, directory_ / "mutated.mp4");
        EXPECT_TRUE(extracted.nalLengthSize == 4 || extracted.nalLengthSize == 2);
        EXPECT_EQ(extracted.sets.spsRbspArray.size(), extracted.sets.spsArray.size());
      } catch (const Error& failure) {
        EXPECT_FALSE(failure.description().empty());
      }
    }
  }
}

}  // namespace
}  // namespace tarn
