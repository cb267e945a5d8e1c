#include <gtest/gtest.h>

#include "mp4/MP4BoxUtils.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using namespace test;

class BoxSearch : public testing::Test {
 protected:
  FileHandle& open(const Bytes& bytes) {
    writeFileAtomically(files_, directory_ / "boxes", bytes);
    file_ = files_.open(directory_ / "boxes", OpenMode::reading);
    return *file_;
  }

  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
  std::unique_ptr<FileHandle> file_;
};

TEST_F(BoxSearch, FindsBoxesWithLongHeadersAndOpenEnds) {
  Bytes trak = longBox("trak", {mediaBox("vide")});
  auto& file = open(joined({box("free"), longBox("moov", {trak}), boxClaiming(0, "mdat", {Bytes(100)})}));
  auto moov = MP4BoxUtils::findBox(file, "moov", topLevelSearchLimit);
  ASSERT_TRUE(moov);
  EXPECT_EQ(moov->offset, 8u);
  EXPECT_EQ(moov->headerSize, 16);
  auto video = MP4BoxUtils::findTrack(file, *moov, MP4TrackType::video);
  ASSERT_TRUE(video);
  EXPECT_EQ(video->offset, 24u);
  EXPECT_EQ(video->headerSize, 16);
  EXPECT_EQ(video->size, trak.size());

  file.seek(0);
  auto mdat = MP4BoxUtils::findBox(file, "mdat", topLevelSearchLimit);
  ASSERT_TRUE(mdat);
  EXPECT_EQ(mdat->size, 108u);
  EXPECT_EQ(mdat->end(), file.seekToEnd());
}

TEST_F(BoxSearch, SearchLimitBoundsWhereABoxMayBegin) {
  auto& file = open(joined({box("free", {Bytes(92)}), box("free", {Bytes(92)}), box("moov")}));
  file.seek(100);
  EXPECT_FALSE(MP4BoxUtils::findBox(file, "moov", 100));
  file.seek(100);
  EXPECT_TRUE(MP4BoxUtils::findBox(file, "moov", 101));
  file.seek(200);
  EXPECT_TRUE(MP4BoxUtils::findBox(file, "moov", UINT64_MAX));
}

TEST_F(BoxSearch, PassesOverTracksWithoutAHandler) {
  Bytes cut = box("hdlr", {Bytes(11)});
  auto& file = open(box("moov", {box("trak"), box("trak", {box("mdia")}), box("trak", {box("mdia", {cut})}),
                                 box("trak", {mediaBox("soun")}), box("trak", {mediaBox("vide")})}));
  auto moov = MP4BoxUtils::findBox(file, "moov", topLevelSearchLimit);
  auto audio = MP4BoxUtils::findTrack(file, moov.value(), MP4TrackType::audio);
  auto video = MP4BoxUtils::findTrack(file, moov.value(), MP4TrackType::video);
  ASSERT_TRUE(audio && video);
  EXPECT_EQ(audio->offset, 8u + 8 + 16 + 35);
  EXPECT_EQ(video->offset, audio->end());

  file.seek(3);
  EXPECT_EQ(MP4BoxUtils::getHandlerType(file, *video), "vide");
  EXPECT_EQ(file.offset(), 3u);
}

TEST(TrakInBuffer, MatchesTheHandlerOfTheNextMedia) {
  Bytes sound = trackBox("soun", {}), video = trackBox("vide", {});
  Bytes moov = box("moov", {box("mvhd", {Bytes(20)}), box("trak", {box("tkhd")}), sound, video});
  EXPECT_EQ(MP4BoxUtils::findTrakOffset(moov, MP4TrackType::audio), 8u + 28 + 16);
  EXPECT_EQ(MP4BoxUtils::findTrakOffset(moov, MP4TrackType::video), 8u + 28 + 16 + sound.size());
  moov.resize(moov.size() - video.size());
  EXPECT_EQ(MP4BoxUtils::findTrakOffset(moov, MP4TrackType::video), std::nullopt);
  // A handler cut in its type, and a handler type that is no text.
  Bytes cut = box("moov", {box("trak", {box("mdia", {boxClaiming(33, "hdlr", {Bytes(11)})})})});
  EXPECT_EQ(MP4BoxUtils::findTrakOffset(cut, MP4TrackType::video), std::nullopt);
  EXPECT_EQ(MP4BoxUtils::findTrakOffset(box("moov", {trackBox("\xFFide", {})}), MP4TrackType::video), std::nullopt);
  EXPECT_EQ(MP4BoxUtils::findTrakOffset(longBox("moov", {video}), MP4TrackType::video), std::nullopt);
}

TEST(TrakInBuffer, OffsetsComeInPreOrder) {
  Bytes moov = box("moov", {box("udta", {box("moov", {box("free")})})});
  EXPECT_EQ(MP4BoxUtils::findBoxOffsets(moov, "moov", 0, std::nullopt, true), (std::vector<size_t>{0, 16}));
  EXPECT_EQ(MP4BoxUtils::findBoxOffsets(moov, "moov", 0, std::nullopt, false), (std::vector<size_t>{0}));
  EXPECT_EQ(MP4BoxUtils::findBoxOffsets(moov, "free", 0, 31, true), std::vector<size_t>{});
}

}  // namespace
}  // namespace tarn
