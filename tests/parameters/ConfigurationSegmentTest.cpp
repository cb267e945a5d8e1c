#include <gmock/gmock.h>

#include "parameters/HEVCConfigurationSegment.h"
#include "support/FileTest.h"
#include "support/ParameterSetBuilder.h"

namespace tarn {
namespace {

using namespace test;
using testing::ElementsAre;

/// A sync sample: its index in the track and its bytes.
using Sync = std::pair<int64_t, Bytes>;

class Segments : public FileTest {
 protected:
  std::vector<ConfigurationSegment> detect(bool isHEVC, const std::vector<Sync>& syncs, int64_t total) {
    Bytes all;
    std::vector<SampleInfo> samples;
    for (const auto& [index, bytes] : syncs) {
      samples.push_back({index, all.size(), static_cast<uint32_t>(bytes.size()), true});
      all.insert(all.end(), bytes.begin(), bytes.end());
    }
    auto file = open(all);
    return isHEVC ? HEVCConfigurationSegmentDetector::detectSegments(*file, samples, 4, total)
                  : AVCConfigurationSegmentDetector::detectSegments(*file, samples, 4, total);
  }
};

/// Where the runs begin and end, and how many VPS, SPS and PPS each has.
std::string summary(const std::vector<ConfigurationSegment>& segments) {
  std::string text;
  for (const auto& s : segments) {
    EXPECT_EQ(s.sets.spsRbspArray.size(), s.sets.spsArray.size());
    text += fmt::format("{}-{}:{}/{}/{} ", s.startSampleIndex, s.endSampleIndex, s.sets.vpsArray.size(),
                        s.sets.spsArray.size(), s.sets.ppsArray.size());
  }
  return text;
}

TEST_F(Segments, BeginWhereTheSetsChange) {
  const Bytes vps = hevcVPS(0, 1), sps = HEVCSPS{}.bytes(), small = HEVCSPS{.width = 640}.bytes();
  const Bytes pps = hevcPPS(0, 1), slice = {0x26, 1, 0xAA}, sei = {0x4E, 1, 5}, lone = {0x44};
  const Bytes a = sampleOf({vps, sps, pps, slice}), b = sampleOf({vps, small, pps, slice}), none = sampleOf({slice});
  const Bytes avcSPS = AVCSPS{}.bytes(), avcPPS = {0x68, 0xCE}, avcSlice = {0x65, 0x88}, aud = {9, 0xF0};
  const Bytes avcA = sampleOf({avcSPS, avcPPS, avcSlice}), avcB = sampleOf({avcSPS, {0x68, 0xCF}, avcSlice});
  const Bytes longest(0x9FFFFF, 0x44), tooLong(0xA00000, 0x44);
  auto only = [](std::initializer_list<Bytes> units) { return std::vector<Sync>{{0, sampleOf(units)}}; };
  const std::tuple<bool, std::vector<Sync>, std::string> cases[] = {
      {true, {{0, a}}, "0-99:1/1/1 "},
      {true, {{5, a}, {30, none}, {50, b}, {60, a}, {90, none}}, "0-49:1/1/1 50-59:1/1/1 60-99:1/1/1 "},
      {true, {{0, none}, {30, a}, {50, sampleOf({pps, vps, sps, slice})}}, "0-99:1/1/1 "},
      {true, only({pps, vps, pps, sps, slice}), "0-99:1/1/1 "},
      {true, only({sei, vps, sei, sps, slice}), "0-99:1/1/0 "},
      {true, only({vps, slice, sps, pps}), "0-99:1/0/0 "},
      {true, only({vps, lone, sps}), "0-99:1/0/0 "},
      {true, {{0, Bytes(a.begin(), a.begin() + 12)}}, "0-99:1/0/0 "},
      {true, only({vps, {}, sps}), "0-99:1/0/0 "},
      {true, only({longest, sps}), "0-99:0/0/1 "},
      {true, only({vps, tooLong, sps}), "0-99:1/0/0 "},
      {true, only({Bytes(0x40000 - 5, 0x4E), pps}), "0-99:0/0/1 "},
      {true, only({Bytes(0x40000 - 4, 0x4E), pps}), "0-99:0/0/0 "},
      {false, {{0, avcA}, {20, avcA}, {50, avcB}}, "0-49:0/1/1 50-99:0/1/1 "},
      {false, only({aud, avcSPS, avcSlice, avcPPS}), "0-99:0/1/0 "},
      {false, only({{0x68}, avcSPS}), "0-99:0/1/1 "},
  };
  for (const auto& [isHEVC, syncs, segments] : cases) EXPECT_EQ(summary(detect(isHEVC, syncs, 100)), segments);

  // 00 00 03 01: the SPS holds an emulation prevention byte, which the RBSP has not.
  const Bytes stored = {0x67, 1, 0, 0, 3, 1, 2};
  const auto sets = detect(false, {{0, sampleOf({stored, {0x68, 9}})}}, 1).at(0).sets;
  EXPECT_THAT(sets.spsArray, ElementsAre(stored));
  EXPECT_THAT(sets.spsRbspArray, ElementsAre(Bytes{1, 0, 0, 1, 2}));
}

TEST_F(Segments, AreRefusedWithoutSyncSamplesAndIfThereAreTooMany) {
  for (bool isHEVC : {true, false}) {
    // Sets of 200,000 bytes that change with every sync sample.
    std::vector<Sync> many;
    for (int64_t i = 0; i < 150; ++i) {
      Bytes pps(200'000, isHEVC ? 0x44 : 0x68);
      pps.back() = static_cast<uint8_t>(i);
      many.push_back(
          {i, isHEVC ? sampleOf({hevcVPS(0, 1), HEVCSPS{}.bytes(), pps}) : sampleOf({AVCSPS{}.bytes(), pps})});
    }
    const std::string codec = isHEVC ? "" : "AVC ";
    EXPECT_EQ(failureOf([&] { detect(isHEVC, {}, 200); }), "No " + codec + "configuration segments detected");
    EXPECT_EQ(failureOf([&] { detect(isHEVC, many, 200); }), "Too many " + codec + "configuration segments");
  }
}

}  // namespace
}  // namespace tarn
