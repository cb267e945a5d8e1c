#include <gtest/gtest.h>

#include <bit>
#include <cmath>

#include "mp4/DataExtensions.h"
#include "support/BoxBuilder.h"
#include "support/Clip.h"
#include "support/SyntheticMovie.h"

namespace tarn::test {
namespace {

/// The first description of an audio track with this `stsd`.
CMFormatDescriptionPointer describe(const Bytes& stsd) {
  const auto descriptions = Clip(box("moov", {trackBox("soun", {stsd})})).track().formatDescriptions;
  return descriptions.empty() ? nullptr : descriptions[0];
}

/// An `mp4a` of QuickTime's version 1 or 2 that keeps its `esds` in a `wave`.
Bytes quickTimeEntry(uint32_t version, double rate, uint32_t channels, const Bytes& esds) {
  const uint32_t wholeRate = rate > 0 && rate < 65536 ? static_cast<uint32_t>(rate) : 0;
  Bytes fields = values({0, 1, version << 16, 0, channels << 16 | 16, 0, wholeRate << 16});
  if (version == 1) fields = joined({fields, values({1024, 0, 0, 2})});
  if (version == 2) {
    fields = values({0, 1, 2 << 16, 0, 3 << 16 | 16, 0xFFFE0000, 0x10000, 72});
    ByteWriter(fields).uint64(std::bit_cast<uint64_t>(rate)).uint32(channels).uint32(0x7F000000).zeros(16);
  }
  Bytes wave = box("wave", {box("frma", {values({fourCharacterCode("mp4a")})}), box("mp4a", {values({0})}), esds,
                            box(std::string_view("\0\0\0\0", 4))});
  return box("mp4a", {fields, wave});
}

TEST(FormatDescription, TellsTheCoreOfEachLayout) {
  const Bytes lc48 = {0x11, 0x90}, programConfig = {0x11, 0x80}, dOps = {0, 2, 1, 56};
  Bytes isoVersion1 = aacSampleEntry(44100, 1, lc48);
  isoVersion1[17] = 1;
  const struct {
    const char* name;
    Bytes cookie;
    double rate;
    uint32_t channels, frames;
    Bytes entry = {};  // or else one of 6 channels at 32 kHz, which count where the cookie does not tell
    uint32_t format = kAudioFormatMPEG4AAC;
    uint32_t boxVersion = 0;
  } rows[] = {
      {"LC", lc48, 48000, 2, 1024},
      {"SBR over LC: 24 kHz, stereo, extended to 48 kHz", {0x2B, 0x11, 0x88, 0x00}, 24000, 2, 1024},
      {"PS over SBR over LC: 24 kHz, mono", {0xEB, 0x09, 0x88, 0x00}, 24000, 1, 1024},
      {"LC, 48000 Hz in 24 bits, mono", {0x17, 0x80, 0x5D, 0xC0, 0x08}, 48000, 1, 1024},
      {"channels in a program config element", programConfig, 48000, 6, 1024},
      {"960 frames", {0x11, 0x94}, 48000, 2, 960},
      {"type 32 + 7, 48 kHz, stereo", {0xF8, 0xE6, 0x40}, 48000, 2, 512},
      {"cut short", {0x17, 0x80}, 32000, 6, 1024},
      {"reserved rate", {0x16, 0x90}, 32000, 6, 1024},
      {"ISO version 1", lc48, 48000, 2, 1024, isoVersion1, kAudioFormatMPEG4AAC, 1},
      {"QuickTime 0", lc48, 48000, 2, 1024, quickTimeEntry(0, 44100, 1, esdsBox(0x40, lc48))},
      {"QuickTime 1", lc48, 48000, 2, 1024, quickTimeEntry(1, 44100, 1, esdsBox(0x40, lc48))},
      {"QuickTime 2", programConfig, 48000, 5, 1024, quickTimeEntry(2, 96000, 5, esdsBox(0x40, programConfig))},
      {"fields of QuickTime 2", {}, 88200, 3, 1024, quickTimeEntry(2, 88200, 3, {})},
      {"MP3", {}, 44100, 2, 0, audioSampleEntry("mp4a", 44100, 2, esdsBox(0x6B, {})), fourCharacterCode(".mp3")},
      {"Opus", dOps, 48000, 2, 0, audioSampleEntry("Opus", 48000, 2, box("dOps", {dOps})), fourCharacterCode("Opus")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const Bytes entry = row.entry.empty() ? aacSampleEntry(32000, 6, row.cookie) : row.entry;
    const auto description = describe(box("stsd", {values({row.boxVersion << 24, 1}), entry}));
    ASSERT_TRUE(description);
    const AudioStreamBasicDescription expected{.mSampleRate = row.rate,
                                               .mFormatID = row.format,
                                               .mFramesPerPacket = row.frames,
                                               .mChannelsPerFrame = row.channels};
    EXPECT_EQ(description->streamDescription, expected);
    EXPECT_EQ(description->magicCookie, row.cookie);
  }
}

TEST(FormatDescription, SaysNothingOfDamage) {
  Bytes entry = aacSampleEntry(48000, 2, {0x11, 0x90});
  EXPECT_EQ(describe(fullBox("stsd", {})), nullptr);
  EXPECT_EQ(describe(box("stsd", {values({0, 0}), entry})), nullptr) << "no entry promised";
  EXPECT_EQ(describe(box("stsd", {values({0, 9}), boxClaiming(4, "mp4a")})), nullptr);
  EXPECT_FALSE(describe(sampleDescriptionBox({box("mp4a", {values({0, 1})})}))->streamDescription);
  EXPECT_FALSE(describe(sampleDescriptionBox({audioSampleEntry("twos", 0, 2)}))->streamDescription);
  EXPECT_FALSE(describe(sampleDescriptionBox({quickTimeEntry(2, std::nan(""), 2, {})}))->streamDescription);
  // However early the descriptors end, what they hold is not read beyond that.
  for (size_t cut = 1; cut <= entry.size() - 8; ++cut) {
    Bytes cutEntry(entry.begin(), entry.end() - static_cast<ptrdiff_t>(cut));
    auto description = describe(sampleDescriptionBox({cutEntry}));
    ASSERT_TRUE(description) << cut;
    EXPECT_EQ(description->magicCookie, Bytes()) << "the esds reaches over the end of what there is";
  }
}

}  // namespace
}  // namespace tarn::test
