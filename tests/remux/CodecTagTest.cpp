#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "mp4/ByteArray.h"
#include "mp4/MP4RemuxError.h"
#include "platform/host/PosixFileManager.h"
#include "remux/MP4Remuxer.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/LogCapture.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using namespace test;

class CodecTag : public testing::Test {
 protected:
  Path write(const Bytes& bytes) {
    writeFileAtomically(files_, file_, bytes);
    return file_;
  }
  Bytes written() { return readFile(files_, file_); }

  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
  Path file_ = directory_ / "clip.mp4";
  LogCapture log_;
};

Bytes movieWith(const Bytes& stsd) {
  return joined({box("ftyp", {Bytes(8)}), box("moov", {trackBox("soun", {}), trackBox("vide", {stsd})})});
}

Bytes avcC(size_t size) {
  return box("avcC", {Bytes(size - 8)});
}

TEST_F(CodecTag, RealAvc3FileChangesInFourBytesAndPlays) {
  Path original = encodedVideo({});
  BoxEditor damaged(readFile(files_, original));
  size_t entry = damaged.at("moov/trak/mdia/minf/stbl/stsd/avc1").offset;
  damaged.rename("moov/trak/mdia/minf/stbl/stsd/avc1", "avc3");
  write(damaged.bytes);
  EXPECT_EQ(MP4Remuxer::detectHEVCTag(files_, file_), "avc3");

  EXPECT_TRUE(MP4Remuxer::remuxAVCTag(files_, file_, "avc3"));
  EXPECT_EQ(written(), readFile(files_, original));
  EXPECT_EQ(probeVideo(file_, "codec_tag_string"), "avc1");
  EXPECT_EQ(decoderComplaints(file_), "");
  EXPECT_TRUE(log_.contains("AVC Phase 1 SUCCESS: Replaced avc3→avc1 at offset " + std::to_string(entry + 4)));

  EXPECT_TRUE(MP4Remuxer::remuxAVCTag(files_, file_, "avc1")) << "a second repair";
  EXPECT_EQ(written(), readFile(files_, original));
}

TEST_F(CodecTag, DecidesByTagAndAvcC) {
  struct {
    const char* what;
    Bytes entry;
    bool result;
    const char* line;
  } cases[] = {
      {"smallest avcC", visualSampleEntry("avc1", {avcC(15)}), true,
       "AVC Phase 1: Already avc1 with valid avcC (15 bytes), no remuxing needed"},
      {"too small avcC", visualSampleEntry("avc3", {avcC(14)}), false,
       "AVC Phase 1: WARNING - Found avcC box but size too small (14 bytes)"},
      {"small avcC ahead of a good one", visualSampleEntry("avc3", {avcC(8), avcC(39)}), true,
       "AVC Phase 1: avcC box present (39 bytes), video is now iOS-compatible"},
      {"no avcC", visualSampleEntry("avc3", {box("pasp", {Bytes(8)})}), false,
       "AVC Phase 1: No valid avcC box found, Phase 2 required"},
      {"child over the end", visualSampleEntry("avc3", {boxClaiming(500, "pasp", {Bytes(8)}), avcC(39)}), false,
       "AVC Phase 1: Child box 'pasp' extends beyond sample entry boundary, stopping"},
      {"child without a size", visualSampleEntry("avc3", {boxClaiming(0, "pasp"), avcC(39)}), false,
       "AVC Phase 1: Reached end of child boxes (boxSize=0)"},
      {"child without a name", visualSampleEntry("avc3", {box("a   "), avcC(39)}), false,
       "AVC Phase 1: Invalid child box type 'a   ', stopping scan"},
      {"HEVC", visualSampleEntry("hvc1"), false, "AVC Phase 1: Found HEVC codec, not AVC"},
  };
  for (const auto& c : cases) {
    Bytes before = movieWith(sampleDescriptionBox({c.entry}));
    EXPECT_EQ(MP4Remuxer::remuxAVCTag(files_, write(before), ""), c.result) << c.what;
    EXPECT_TRUE(log_.contains(c.line)) << c.what;
    if (!c.result) {
      EXPECT_EQ(written(), before) << c.what;
    }
  }
}

TEST_F(CodecTag, RefusesWhatIsBroken) {
  using Case = MP4RemuxError::Case;
  Bytes overrunning = movieWith(box("stsd", {values({0, 1}), boxClaiming(UINT32_MAX, "avc3", {Bytes(10)})}));
  struct {
    const char* what;
    Bytes file;
    std::optional<std::string> tag;
    Case error;
    const char* words;
  } cases[] = {
      {"empty file", {}, {}, Case::corruptedMP4, "moov box not found"},
      {"no moov", box("mdat"), {}, Case::corruptedMP4, "moov box not found"},
      {"no video", box("moov", {trackBox("soun", {})}), {}, Case::corruptedMP4, "Video trak box not found"},
      {"no minf", box("moov", {box("trak", {mediaBox("vide")})}), {}, Case::corruptedMP4, "minf box not found"},
      {"no stsd", box("moov", {trackBox("vide", {})}), {}, Case::corruptedMP4, "stsd box not found"},
      {"no entry", movieWith(box("stsd", {Bytes(16)})), {}, Case::corruptedMP4, "No sample entries in stsd"},
      {"endless entry", overrunning, "avc3", Case::corruptedMP4, "Sample entry too small"},
      {"small entry", movieWith(sampleDescriptionBox({box("avc3", {Bytes(77)})})), "avc3", Case::corruptedMP4,
       "Sample entry too small"},
      {"other codec", movieWith(sampleDescriptionBox({visualSampleEntry("vp09")})), "vp09", Case::unsupportedFormat,
       "Expected avc1 or avc3, found vp09"},
  };
  for (const auto& c : cases) {
    write(c.file);
    EXPECT_EQ(MP4Remuxer::detectHEVCTag(files_, file_), c.tag) << c.what;
    try {
      MP4Remuxer::remuxAVCTag(files_, file_, "avc3");
      ADD_FAILURE() << c.what << " was not refused";
    } catch (const MP4RemuxError& error) {
      EXPECT_EQ(error.kind(), c.error) << c.what;
      EXPECT_THAT(error.description(), testing::HasSubstr(c.words)) << c.what;
    }
    EXPECT_EQ(written(), c.file) << c.what;
  }

  write(movieWith(box("stsd", {values({0, 1})})));
  EXPECT_THROW(MP4Remuxer::detectHEVCTag(files_, file_), ByteArrayError);
  EXPECT_THROW(MP4Remuxer::remuxAVCTag(files_, file_, "avc3"), ByteArrayError);
  EXPECT_THROW(MP4Remuxer::detectHEVCTag(files_, directory_ / "none"), MP4RemuxError);
  EXPECT_THROW(MP4Remuxer::remuxAVCTag(files_, directory_ / "none", ""), MP4RemuxError);
}

TEST_F(CodecTag, LooksAtTheFirst100MegabytesOnly) {
  Bytes moov = box("moov", {trackBox("vide", {sampleDescriptionBox({visualSampleEntry("avc1", {avcC(15)})})})});
  for (uint32_t offset : {0x6400000u - 1, 0x6400000u}) {
    auto file = files_.open(file_, OpenMode::creating);
    file->write(boxClaiming(offset, "mdat"));
    file->seek(offset);
    file->write(moov);
    bool isSeen = offset < 0x6400000;
    EXPECT_EQ(MP4Remuxer::detectHEVCTag(files_, file_).has_value(), isSeen);
    if (!isSeen) {
      EXPECT_THROW(MP4Remuxer::remuxAVCTag(files_, file_, "avc1"), MP4RemuxError);
    }
  }
}

}  // namespace
}  // namespace tarn
