#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/FileTest.h"
#include "support/FlashBeep.h"
#include "support/SyntheticMovie.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/MP4EditListStripper.h"

namespace tarn::test {
namespace {

class Stripper : public FileTest {
 protected:
  auto strip(const Path& from) {
    removeIfExists(files_, output_);
    return MP4EditListStripper::stripAudioEditList(files_, from, output_);
  }

  const Path output_ = directory_ / "stripped.mp4";
};

TEST_F(Stripper, RemovesTheListOfRealClipsAndNothingElse) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{{}, {"-movflags", "faststart"}}) {
    const Path clip = flashBeepClip(0.3, arguments, "-map 0:v -map 1:a -map 1:a");
    EXPECT_EQ(strip(clip), (std::vector<OriginalEditListEntry>{{278, -1, 0x10000}, {3022, 0, 0x10000}}));
    EXPECT_EQ(mediaHashes(output_), mediaHashes(clip));
    EXPECT_EQ(files_.attributes(output_)->size, files_.attributes(clip)->size - 48);
    auto info = MP4AVSyncFixer::readOriginalSyncInfo(files_, output_);
    EXPECT_TRUE(info.audioEditList.empty());
    EXPECT_EQ(info.videoEditList.size(), 1u);
  }
}

const SyntheticTrack video{.handler = "vide", .edits = {{1, 2}}}, plain, listed{.edits = {{0x80000000, -1}}};
constexpr const char* list = "moov/trak/edts/elst";

TEST_F(Stripper, CopiesAFileWithNothingToRemove) {
  BoxEditor noRows(syntheticMovie({listed, video})), noList = noRows, noHeader = noRows;
  noRows.setField(noRows.at(list).offset + 12, 0);
  noList.rename(list, "free");
  for (const Bytes& movie :
       {syntheticMovie({video}), syntheticMovie({video, plain, listed}), noRows.bytes, noList.bytes}) {
    EXPECT_FALSE(strip(write(movie)));
    EXPECT_EQ(readFile(files_, output_), movie);
  }
  noHeader.rename("moov/trak/mdia/minf/smhd", "free");
  for (const char* place : {"moov/trak/edts", "moov/trak", "moov"}) {
    noHeader.insert(place, noHeader.at(place).offset + 8, longBox("free", {Bytes(9)}));
  }
  EXPECT_EQ(strip(write(noHeader.bytes)), (std::vector<OriginalEditListEntry>{{-0x80000000LL, -1, 0x10000}}));
}

TEST_F(Stripper, SaysWhatItCannotDoAndLeavesNothing) {
  const Bytes moov = BoxEditor(syntheticMovie({listed})).get("moov");
  const std::pair<Bytes, const char*> rows[] = {
      {joined({moov, box("mdat"), box("moof")}), "fragmentedMP4NotSupported"},
      {box("mdat"), "corruptedMP4: moov box not found"},
      {longBox("moov", {Bytes(moov.begin() + 8, moov.end())}), "corruptedMP4: moov box has a 64-bit size field"},
      {joined({moov, boxClaiming(100, "mdat", {Bytes(20)})}), "ioError: Read failed"}};
  for (const auto& [file, failure] : rows) {
    EXPECT_EQ(failureOf([&, file = file] { strip(write(file)); }), failure);
    EXPECT_FALSE(files_.fileExists(output_));
  }
}

}  // namespace
}  // namespace tarn::test
