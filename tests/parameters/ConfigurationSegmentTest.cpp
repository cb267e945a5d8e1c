#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "parameters/HEVCConfigurationSegment.h"
#include "platform/host/PosixFileManager.h"
#include "support/LogCapture.h"
#include "support/ParameterSetBuilder.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using namespace test;
using testing::ElementsAre;

const std::string noSets(64, '0');

/// A sync sample: its index in the track and its bytes.
struct Sync {
  int64_t index;
  Bytes bytes;
};

class Segments : public testing::Test {
 protected:
  std::vector<ConfigurationSegment> detect(bool isHEVC, const std::vector<Sync>& syncs, int64_t total) {
    Bytes all;
    std::vector<SampleInfo> samples;
    for (const Sync& sync : syncs) {
      samples.push_back({sync.index, all.size(), static_cast<uint32_t>(sync.bytes.size()), true});
      all.insert(all.end(), sync.bytes.begin(), sync.bytes.end());
    }
    writeFileAtomically(files_, directory_ / "samples", all);
    auto file = files_.open(directory_ / "samples", OpenMode::reading);
    return isHEVC ? HEVCConfigurationSegmentDetector::detectSegments(*file, samples, 4, total)
                  : AVCConfigurationSegmentDetector::detectSegments(*file, samples, 4, total);
  }

  LogCapture log_;
  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
};

/// Where the runs begin and end, and how many VPS, SPS and PPS each has.
std::string summary(const std::vector<ConfigurationSegment>& segments) {
  std::string text;
  for (const auto& s : segments) {
    EXPECT_EQ(s.spsRbspSet.size(), s.spsSet.size());
    text += fmt::format("{}-{}:{}/{}/{} ", s.startSampleIndex, s.endSampleIndex, s.vpsSet.size(), s.spsSet.size(),
                        s.ppsSet.size());
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
  const Bytes beyond = sampleOf({Bytes(0x40000 - 4, 0x4E), pps}), atLimit = sampleOf({Bytes(0x40000 - 5, 0x4E), pps});
  struct {
    const char* what;
    bool isHEVC;
    std::vector<Sync> syncs;
    std::string segments;
  } cases[] = {
      {"one sync sample", true, {{0, a}}, "0-99:1/1/1 "},
      {"a change", true, {{5, a}, {50, b}}, "0-49:1/1/1 50-99:1/1/1 "},
      {"another order", true, {{0, a}, {50, sampleOf({pps, vps, sps, slice})}}, "0-99:1/1/1 "},
      {"there and back", true, {{0, a}, {30, b}, {60, a}}, "0-29:1/1/1 30-59:1/1/1 60-99:1/1/1 "},
      {"no sets between", true, {{0, a}, {30, none}, {60, a}}, "0-29:1/1/1 30-59:0/0/0 60-99:1/1/1 "},
      {"a set twice", true, {{0, sampleOf({pps, vps, pps, sps, slice})}}, "0-99:1/1/1 "},
      {"SEI ahead", true, {{0, sampleOf({sei, vps, sei, sps, slice})}}, "0-99:1/1/0 "},
      {"behind a slice", true, {{0, sampleOf({vps, slice, sps, pps})}}, "0-99:1/0/0 "},
      {"a lone header byte", true, {{0, sampleOf({vps, lone, sps})}}, "0-99:1/0/0 "},
      {"cut off", true, {{0, Bytes(a.begin(), a.begin() + 12)}}, "0-99:1/0/0 "},
      {"a length of 0", true, {{0, sampleOf({vps, {}, sps})}}, "0-99:1/0/0 "},
      {"the greatest length", true, {{0, sampleOf({longest, sps})}}, "0-99:0/0/1 "},
      {"one byte more", true, {{0, sampleOf({vps, tooLong, sps})}}, "0-99:1/0/0 "},
      {"a set at the limit", true, {{0, atLimit}}, "0-99:0/0/1 "},
      {"a set behind it", true, {{0, beyond}}, "0-99:0/0/0 "},
      {"AVC", false, {{0, avcA}, {20, avcA}, {50, avcB}}, "0-49:0/1/1 50-99:0/1/1 "},
      {"AVC behind a slice", false, {{0, sampleOf({aud, avcSPS, avcSlice, avcPPS})}}, "0-99:0/1/0 "},
      {"AVC lone header byte", false, {{0, sampleOf({{0x68}, avcSPS})}}, "0-99:0/1/1 "},
  };
  for (const auto& c : cases) EXPECT_EQ(summary(detect(c.isHEVC, c.syncs, 100)), c.segments) << c.what;

  auto runs = detect(true, {{0, a}, {30, none}, {60, a}}, 100);
  EXPECT_EQ(runs[0].fingerprint, runs[2].fingerprint);
  EXPECT_EQ(runs[1].fingerprint, noSets);
  EXPECT_THAT(runs[0].spsSet, ElementsAre(sps));
  for (const char* line :
       {"\n=== Configuration Segment Detection ===", "Scanning 3 IRAP samples to detect configuration changes...",
        "Segment 2: samples 30-59 (30 samples)", "  VPS: 0, SPS: 0, PPS: 0", "\nDetected 3 configuration segment(s)",
        "\n=== AVC Configuration Segment Detection ===", "AVC Segment 2: samples 50-99 (50 samples)",
        "  SPS: 1, PPS: 1", "\nAVC: Detected 2 configuration segment(s)"}) {
    EXPECT_TRUE(log_.contains(line)) << line;
  }
}

TEST_F(Segments, AreNamedByTheStoredBytes) {
  // 00 00 03 01: the SPS holds an emulation prevention byte, which is part of the fingerprint and not of the RBSP.
  const Bytes sps = {0x67, 1, 0, 0, 3, 1, 2}, pps = {0x68, 9};
  auto segment = detect(false, {{0, sampleOf({sps, pps})}}, 1).at(0);
  EXPECT_EQ(segment.fingerprint, "2949b309d084eac5aee7c5b6409c7c40b51ba4dd678a4680f3cfc0f26104bfa4");
  EXPECT_THAT(segment.spsSet, ElementsAre(sps));
  EXPECT_THAT(segment.spsRbspSet, ElementsAre(Bytes{1, 0, 0, 1, 2}));
}

TEST_F(Segments, FailWithoutSyncSamplesAndBeyondAllMeasure) {
  struct {
    bool isHEVC;
    std::string domain, infix;
  } cases[] = {{true, "HEVCConfigurationSegment", ""}, {false, "AVCConfigurationSegment", "AVC "}};
  for (const auto& c : cases) {
    // Sets of 200,000 bytes that change with every sync sample.
    std::vector<Sync> many;
    for (int64_t i = 0; i < 150; ++i) {
      Bytes pps(200'000, c.isHEVC ? 0x44 : 0x68);
      pps.back() = static_cast<uint8_t>(i);
      many.push_back({i, sampleOf({pps})});
    }
    for (const auto& [syncs, words] : {std::pair(std::vector<Sync>(), "No {}configuration segments detected"),
                                       {many, "Too many {}configuration segments"}}) {
      try {
        detect(c.isHEVC, syncs, 200);
        ADD_FAILURE() << words;
      } catch (const Error& error) {
        EXPECT_EQ(error.domain(), c.domain);
        EXPECT_EQ(error.code(), -1);
        EXPECT_EQ(error.description(), fmt::format(fmt::runtime(words), c.infix));
      }
    }
  }
}

}  // namespace
}  // namespace tarn
