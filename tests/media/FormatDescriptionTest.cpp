#include <gtest/gtest.h>

#include <bit>
#include <cmath>

#include "media/AVAsset.h"
#include "mp4/DataExtensions.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/MediaMaker.h"
#include "support/SyntheticMovie.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using namespace test;

/// The first description of an audio track with this `stsd`.
CMFormatDescriptionPointer describe(const Bytes& stsd) {
  TempDirectory directory;
  PosixFileManager files(directory.path());
  Path file = directory / "clip.mp4";
  Bytes minf = box("minf", {box("stbl", {stsd})});
  writeFileAtomically(files, file, box("moov", {box("trak", {box("mdia", {handlerBox("soun"), minf})})}));
  auto descriptions = AVAsset(files, file).tracks(AVMediaType::audio).at(0).formatDescriptions;
  return descriptions.empty() ? nullptr : descriptions[0];
}

/// An `mp4a` of QuickTime's version 1 or 2 that keeps its `esds` in a `wave`.
Bytes quickTimeEntry(uint32_t version, double rate, uint32_t channels, const Bytes& esds) {
  Bytes fields = values({0, 1, version << 16, 0, channels << 16 | 16, 0, static_cast<uint32_t>(rate) << 16});
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
  constexpr uint32_t aac = kAudioFormatMPEG4AAC;
  const Bytes lc48 = {0x11, 0x90};
  const Bytes he24 = {0x2B, 0x11, 0x88, 0x00};              // SBR over LC: 24 kHz, stereo, extended to 48 kHz
  const Bytes ps24 = {0xEB, 0x09, 0x88, 0x00};              // PS over SBR over LC: 24 kHz, mono
  const Bytes rate24Bits = {0x17, 0x80, 0x5D, 0xC0, 0x08};  // LC, 48000 Hz in 24 bits, mono
  const Bytes programConfig = {0x11, 0x80};                 // channels in a program config element
  const Bytes shortFrames = {0x11, 0x94};                   // 960 frames
  const Bytes lowDelay = {0xF8, 0xE6, 0x40};                // type 32 + 7, 48 kHz, stereo
  const Bytes cut = {0x17, 0x80};
  const Bytes reservedRate = {0x16, 0x90};
  const Bytes dOps = {0, 2, 1, 56};
  Bytes isoVersion1 = aacSampleEntry(44100, 1, lc48);
  isoVersion1[17] = 1;
  struct {
    const char* name;
    Bytes entry;
    double rate;
    uint32_t channels, frames, format;
    Bytes cookie;
    uint32_t boxVersion = 0;
  } cases[] = {
      {"LC", aacSampleEntry(44100, 1, lc48), 48000, 2, 1024, aac, lc48},
      {"HE", aacSampleEntry(48000, 2, he24), 24000, 2, 1024, aac, he24},
      {"PS", aacSampleEntry(48000, 2, ps24), 24000, 1, 1024, aac, ps24},
      {"24-bit rate", aacSampleEntry(44100, 2, rate24Bits), 48000, 1, 1024, aac, rate24Bits},
      {"program config", aacSampleEntry(44100, 6, programConfig), 48000, 6, 1024, aac, programConfig},
      {"960", aacSampleEntry(48000, 2, shortFrames), 48000, 2, 960, aac, shortFrames},
      {"ELD", aacSampleEntry(48000, 2, lowDelay), 48000, 2, 512, aac, lowDelay},
      {"cut short", aacSampleEntry(32000, 2, cut), 32000, 2, 1024, aac, cut},
      {"reserved rate", aacSampleEntry(32000, 2, reservedRate), 32000, 2, 1024, aac, reservedRate},
      {"ISO version 1", isoVersion1, 48000, 2, 1024, aac, lc48, 1},
      {"QuickTime 0", quickTimeEntry(0, 44100, 1, esdsBox(0x40, lc48)), 48000, 2, 1024, aac, lc48},
      {"QuickTime 1", quickTimeEntry(1, 44100, 1, esdsBox(0x40, lc48)), 48000, 2, 1024, aac, lc48},
      {"QuickTime 2", quickTimeEntry(2, 96000, 5, esdsBox(0x40, programConfig)), 48000, 5, 1024, aac, programConfig},
      {"fields of QuickTime 2", quickTimeEntry(2, 88200, 3, {}), 88200, 3, 1024, aac, {}},
      {"MP3", audioSampleEntry("mp4a", 44100, 2, esdsBox(0x6B, {})), 44100, 2, 0, fourCharacterCode(".mp3"), {}},
      {"Opus", audioSampleEntry("Opus", 48000, 2, box("dOps", {dOps})), 48000, 2, 0, fourCharacterCode("Opus"), dOps},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto description = describe(box("stsd", {values({c.boxVersion << 24, 1}), c.entry}));
    ASSERT_TRUE(description && description->streamDescription);
    const auto& stream = *description->streamDescription;
    EXPECT_EQ(stream.mSampleRate, c.rate);
    EXPECT_EQ(stream.mChannelsPerFrame, c.channels);
    EXPECT_EQ(stream.mFramesPerPacket, c.frames);
    EXPECT_EQ(stream.mFormatID, c.format);
    EXPECT_EQ(description->magicCookie, c.cookie);
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

TEST(FormatDescription, IsThatOfRealFiles) {
  PosixFileManager files("/nonexistent");
  struct {
    const char* encoding;
    const char* ending;
    double rate;
    uint32_t channels;
  } cases[] = {
      {"-ar 44100 -ac 1 -c:a aac", ".mp4", 44100, 1},        {"-ar 48000 -ac 6 -c:a aac", ".mp4", 48000, 6},
      {"-ar 24000 -ac 2 -c:a aac", ".mov", 24000, 2},        {"-ar 48000 -ac 2 -c:a libopus", ".mp4", 48000, 2},
      {"-ar 44100 -ac 2 -c:a libmp3lame", ".mp4", 44100, 2},
  };
  for (const auto& c : cases) {
    Path file = madeByFFmpeg(words(std::string("-f lavfi -i sine=r=48000 -t 1 ") + c.encoding), c.ending);
    auto description = AVAsset(files, file).tracks(AVMediaType::audio).at(0).formatDescriptions.at(0);
    EXPECT_EQ(description->streamDescription.value().mSampleRate, c.rate) << c.encoding;
    EXPECT_EQ(description->streamDescription.value().mChannelsPerFrame, c.channels) << c.encoding;
  }
}

}  // namespace
}  // namespace tarn
