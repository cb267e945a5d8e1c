#include <functional>

#include "mp4/ByteArray.h"
#include "remux/RemuxFixture.h"
#include "support/BoxBuilder.h"

namespace tarn {
namespace {

using namespace test;

class CodecTag : public FileTest {
 protected:
  bool repairTag() { return MP4Remuxer::remuxAVCTag(files_, file_, "avc3"); }
};

Bytes movieWith(const Bytes& stsd) {
  return joined({box("ftyp", {Bytes(8)}), box("moov", {trackBox("soun", {}), trackBox("vide", {stsd})})});
}

Bytes avcC(size_t size) {
  return box("avcC", {Bytes(size - 8)});
}

TEST_F(CodecTag, RealAvc3FileChangesInFourBytesAndPlays) {
  const Bytes original = readFile(files_, encodedVideo({}));
  BoxEditor damaged(original);
  size_t entry = damaged.at("moov/trak/mdia/minf/stbl/stsd/avc1").offset;
  damaged.rename("moov/trak/mdia/minf/stbl/stsd/avc1", "avc3");
  write(damaged.bytes);
  EXPECT_EQ(MP4Remuxer::detectHEVCTag(files_, file_), "avc3");
  for (const char* time : {"first", "second"}) {
    EXPECT_TRUE(repairTag()) << time;
    EXPECT_EQ(written(), original) << time;
  }
  EXPECT_EQ(decoderComplaints(file_), "");
  EXPECT_TRUE(log_.contains("AVC Phase 1 SUCCESS: Replaced avc3→avc1 at offset " + std::to_string(entry + 4)));
}

TEST_F(CodecTag, OfBrokenAndOddMovies) {
  auto movieOf = [](const Bytes& entry) { return movieWith(sampleDescriptionBox({entry})); };
  auto avc3 = [&](std::initializer_list<Bytes> children) { return movieOf(visualSampleEntry("avc3", children)); };
  const Bytes overrun = boxClaiming(500, "pasp", {Bytes(8)}), noSize = boxClaiming(0, "pasp");
  const Bytes tooLarge = box("stsd", {values({0, 1}), boxClaiming(UINT32_MAX, "avc3", {Bytes(10)})});
  const std::string corrupted = "Corrupted MP4 file: ", ends = ByteArrayError::insufficientData().description();
  struct {
    Bytes movie;
    std::optional<std::string> tag;
    std::string outcome;  ///< how the repair fails, or the end of its log line
  } cases[] = {
      {movieOf(visualSampleEntry("avc1", {avcC(15)})), "avc1", "avc1 with valid avcC (15 bytes), no remuxing needed"},
      {avc3({avcC(8), avcC(39)}), "avc3", "avcC box present (39 bytes), video is now iOS-compatible"},
      {avc3({avcC(14)}), "avc3", "WARNING - Found avcC box but size too small (14 bytes)"},
      {avc3({box("pasp", {Bytes(8)})}), "avc3", "No valid avcC box found, Phase 2 required"},
      {avc3({overrun, avcC(39)}), "avc3", "Child box 'pasp' extends beyond sample entry boundary, stopping"},
      {avc3({noSize, avcC(39)}), "avc3", "Reached end of child boxes (boxSize=0)"},
      {avc3({box("a   "), avcC(39)}), "avc3", "Invalid child box type 'a   ', stopping scan"},
      {movieOf(visualSampleEntry("hvc1")), "hvc1", "Found HEVC codec, not AVC"},
      {{}, {}, corrupted + "moov box not found"},
      {box("mdat"), {}, corrupted + "moov box not found"},
      {box("moov", {trackBox("soun", {})}), {}, corrupted + "Video trak box not found"},
      {box("moov", {box("trak", {mediaBox("vide")})}), {}, corrupted + "minf box not found"},
      {box("moov", {trackBox("vide", {})}), {}, corrupted + "stsd box not found"},
      {movieWith(box("stsd", {Bytes(16)})), {}, corrupted + "No sample entries in stsd"},
      {movieWith(tooLarge), "avc3", corrupted + "Sample entry too small"},
      {movieOf(box("avc3", {Bytes(77)})), "avc3", corrupted + "Sample entry too small"},
      {movieOf(visualSampleEntry("vp09")), "vp09", "Unsupported format: Expected avc1 or avc3, found vp09"},
  };
  for (const auto& c : cases) {
    write(c.movie);
    log_.clear();
    bool isDone = false;
    std::string failure = failureOf([&] { isDone = repairTag(); });
    if (failure.empty()) {
      EXPECT_THAT(log_.lines(), testing::Contains(testing::EndsWith(c.outcome)));
      EXPECT_EQ(isDone, &c - cases < 2) << c.outcome;
    } else {
      EXPECT_EQ(failure, c.outcome);
    }
    EXPECT_TRUE(isDone || written() == c.movie) << c.outcome;
    EXPECT_EQ(MP4Remuxer::detectHEVCTag(files_, write(c.movie)), c.tag) << c.outcome;
  }
  for (const auto& work : {std::function([&] { repairTag(); }), {[&] { MP4Remuxer::detectHEVCTag(files_, file_); }}}) {
    write(movieWith(box("stsd", {values({0, 1})})));
    EXPECT_EQ(failureOf(work), ends);
    files_.removeItem(file_);
    EXPECT_EQ(failureOf(work), "File not found");
  }
}

}  // namespace
}  // namespace tarn
