#include <algorithm>

#include "mp4/DataExtensions.h"
#include "mp4/MP4RemuxError.h"
#include "parameters/NALUnitParser.h"
#include "platform/ForwardingFileManager.h"
#include "remux/RemuxFixture.h"
#include "support/BoxBuilder.h"
#include "support/MovieLayout.h"

namespace tarn {
namespace {

using namespace test;
using Kind = MovieLayout::Piece::Kind;

const auto twoSounds = words("-f lavfi -i sine=r=48000 -map 1 -map 0 -map 1 -c:a aac -b:a 64k");

TEST_F(RemuxTest, RepairsRealStreams) {
  struct {
    const char* what;
    VideoRecipe recipe;
  } cases[] = {
      {"B-frames", {.parameters = "repeat-headers=1:keyint=20"}},
      {"open GOP and slices", {.parameters = "repeat-headers=1:keyint=20:open-gop=1:slices=4"}},
      {"4:2:2 of 10 bits, cropped",
       {.parameters = "repeat-headers=1", .pixelFormat = "yuv422p10le", .size = "190x142"}},
      {"interlaced", {.parameters = "repeat-headers=1:interlaced=1"}},
      {"sound around it", {.parameters = "repeat-headers=1", .more = twoSounds}},
      {"HEVC with B-frames", inBandHEVC},
      {"HEVC with open GOP and slices",
       {.codec = "libx265", .parameters = "repeat-headers=1:keyint=20:open-gop=1:bframes=3:slices=2"}},
      {"HEVC of 4:2:2 and 10 bits, cropped",
       {.codec = "libx265", .parameters = "repeat-headers=1", .pixelFormat = "yuv422p10le", .size = "190x142"}},
      {"HEVC of fields", {.codec = "libx265", .parameters = "repeat-headers=1:interlace=1"}},
      {"HEVC with temporal layers",
       {.codec = "libx265", .parameters = "repeat-headers=1:temporal-layers=1:bframes=3:b-adapt=0"}},
      {"HEVC with sound around it", {.codec = "libx265", .parameters = "repeat-headers=1", .more = twoSounds}},
  };
  for (const auto& c : cases) {
    bool isHEVC = c.recipe.codec == "libx265";
    Path original = encodedVideo(c.recipe);
    MovieLayout layout(readFile(files_, original));
    layout.moov = withoutParameterSets(layout.moov, isHEVC);
    write(layout.build({{Kind::raw, layout.ftyp}, {Kind::moov}, {Kind::mdat}}));
    if (isHEVC) {
      remuxHEVC(files_);
    } else {
      remuxAVC(files_);
    }
    EXPECT_EQ(probeVideo(file_, "codec_tag_string"), isHEVC ? "hvc1" : "avc1") << c.what;
    EXPECT_EQ(decoderComplaints(file_), "") << c.what;
    EXPECT_EQ(frameHashes(file_), frameHashes(original)) << c.what;
    EXPECT_GE(std::ranges::count(frameHashes(file_), '\n'), 49) << c.what;
    EXPECT_EQ(sampleHashes(file_), sampleHashes(original)) << c.what;
    expectNothingLeftBehind();
  }
}

/// Types of the top-level boxes, in order.
std::string boxOrder(const Bytes& file) {
  std::string order;
  for (size_t p = 0; p + 8 <= file.size();) {
    uint64_t size = readUInt32(file, p).value();
    if (size == 1) size = readUInt64(file, p + 8).value();
    if (size == 0) size = file.size() - p;
    order += std::string(textOf(ByteView(file).subspan(p + 4, 4))) + " ";
    p += size;
  }
  return order;
}

TEST_F(RemuxTest, KeepsEveryLayout) {
  VideoRecipe recipe = inBandHEVC;
  recipe.more = words("-f lavfi -i sine=r=48000 -map 0 -map 1 -map 1 -c:a aac");
  Path original = encodedVideo(recipe);
  MovieLayout layout(readFile(files_, original));
  layout.moov = withoutParameterSets(layout.moov, true);
  BoxEditor editor(layout.moov);
  for (std::string parent : {"moov/trak/mdia/minf/stbl", "moov/trak", "moov"}) {
    editor.insert(parent, editor.at(parent).offset + 8, box("wxyz", {Bytes(20, 7)}));
    editor.insert(parent, editor.at(parent).end(), box("uuid", {Bytes(24, 9)}));
  }
  MovieLayout odd = layout;
  odd.moov = editor.bytes;
  MovieLayout longOffsets = layout;
  longOffsets.useLongOffsets();
  uint64_t half = layout.chunks().at(layout.chunks().size() / 2);

  using Piece = MovieLayout::Piece;
  Piece ftyp{Kind::raw, layout.ftyp}, moov{Kind::moov}, mdat{Kind::mdat}, free{Kind::raw, box("free", {Bytes(50)})};
  Piece uuid{Kind::raw, box("uuid", {Bytes(40, 3)})}, firstHalf{Kind::mdat, {}, 0, half},
      secondHalf{Kind::mdat, {}, half};
  Piece largeUUID{Kind::raw, box("uuid", {Bytes(11'000'000, 5)})};
  struct {
    const char* what;
    const MovieLayout& movie;
    std::vector<Piece> pieces;
  } cases[] = {
      {"moov ahead", layout, {ftyp, moov, free, mdat}},
      {"moov behind", layout, {ftyp, free, mdat, moov}},
      {"strange boxes", odd, {ftyp, uuid, moov, uuid, mdat, free}},
      {"long mdat header", layout, {ftyp, moov, {Kind::longMdat}, free}},
      {"open mdat", layout, {ftyp, moov, {Kind::openMdat}}},
      {"open moov", layout, {ftyp, mdat, {Kind::openMoov}}},
      {"co64 ahead", longOffsets, {ftyp, moov, mdat}},
      {"moov between two mdat", layout, {ftyp, firstHalf, moov, free, secondHalf}},
      {"co64 between two mdat", longOffsets, {firstHalf, moov, secondHalf}},
      {"large box ahead of the media", layout, {ftyp, moov, largeUUID, mdat}},
      {"two mdat behind the moov", layout, {ftyp, moov, secondHalf, firstHalf}},
  };
  std::string samples = sampleHashes(original);
  ASSERT_GT(std::ranges::count(samples, '\n'), 200);
  for (const auto& c : cases) {
    Bytes damaged = c.movie.build(c.pieces);
    write(damaged);
    ASSERT_EQ(sampleHashes(file_), samples) << c.what << ": not well laid out before the repair";
    remuxHEVC(files_);
    Bytes repaired = written();
    EXPECT_EQ(boxOrder(repaired), boxOrder(damaged)) << c.what;
    EXPECT_EQ(sampleHashes(file_), samples) << c.what;
    EXPECT_EQ(decoderComplaints(file_), "") << c.what;
    EXPECT_EQ(probeVideo(file_, "codec_tag_string"), "hvc1") << c.what;
    remuxHEVC(files_);
    EXPECT_EQ(written(), repaired) << c.what << ": a second repair changes nothing";
    expectNothingLeftBehind();
  }
}

TEST_F(RemuxTest, RefusesAndLeavesTheFileAlone) {
  // Parameter sets in the hvcC alone, none in the samples.
  Path outOfBand = encodedVideo({.codec = "libx265"});
  write(readFile(files_, outOfBand));
  EXPECT_THROW(remuxHEVC(files_), NALUnitParserError);
  EXPECT_EQ(written(), readFile(files_, outOfBand));

  // Another codec than the worker's, a moov with a 64-bit header, a file that is not there.
  Bytes movie = readFile(files_, encodedVideo(inBandAVC));
  write(movie);
  EXPECT_THROW(remuxHEVC(files_), Error);
  EXPECT_EQ(written(), movie);
  MovieLayout layout(readFile(files_, encodedVideo(inBandHEVC)));
  Bytes longMoov = layout.build({{Kind::raw, layout.ftyp}, {Kind::mdat}, {Kind::moov}});
  longMoov.resize(longMoov.size() - layout.moov.size());
  BoxEditor moov(layout.build({{Kind::raw, layout.ftyp}, {Kind::mdat}, {Kind::moov}}));
  Bytes contents = moov.get("moov");
  contents.erase(contents.begin(), contents.begin() + 8);
  longMoov = joined({longMoov, longBox("moov", {contents})});
  write(longMoov);
  EXPECT_THAT([&] { remuxHEVC(files_); },
              testing::ThrowsMessage<MP4RemuxError>(testing::HasSubstr("moov box has a 64-bit size field")));
  EXPECT_EQ(written(), longMoov);
  files_.removeItem(file_);
  EXPECT_THAT([&] { remuxHEVC(files_); }, testing::ThrowsMessage<MP4RemuxError>("File not found"));
}

TEST_F(RemuxTest, StopsWhenCancelled) {
  Bytes damaged = withoutParameterSets(readFile(files_, encodedVideo(inBandHEVC)), true);
  write(damaged);
  CancellationToken token;
  token.cancel();
  EXPECT_THROW(remuxHEVC(files_, &token), CancellationError);
  EXPECT_THAT(log_.lines(), testing::ElementsAre("Starting Phase 2: Extracting parameter sets from bitstream..."));
  EXPECT_EQ(written(), damaged);
}

/// A file system with so many bytes free.
class TightFileManager : public ForwardingFileManager {
 public:
  using ForwardingFileManager::ForwardingFileManager;
  std::optional<uint64_t> freeSpace(const Path&) override { return free; }
  std::optional<uint64_t> free;
};

TEST_F(RemuxTest, AsksForMoreThanTwiceTheFilesSize) {
  Bytes damaged = withoutParameterSets(readFile(files_, encodedVideo(inBandHEVC)), true);
  TightFileManager tight(files_);
  for (uint64_t missing : {0, 1}) {
    write(damaged);
    tight.free = 2 * damaged.size() - missing;
    EXPECT_THAT([&] { remuxHEVC(tight); },
                testing::ThrowsMessage<MP4RemuxError>(testing::HasSubstr("Insufficient disk space: need 0MB, have 0MB "
                                                                         "available. Please free up space")));
    EXPECT_EQ(written(), damaged);
  }
  tight.free = 2 * damaged.size() + 1;
  remuxHEVC(tight);
  EXPECT_TRUE(log_.contains("Disk space check: 0MB available, 0MB required for remuxing"));
  EXPECT_TRUE(log_.contains("Changed codec tag: hev1 → hvc1"));
  EXPECT_NE(written(), damaged);
  tight.free = std::nullopt;
  remuxHEVC(tight);
}

}  // namespace
}  // namespace tarn
