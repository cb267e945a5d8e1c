#include <algorithm>

#include "movie/MovieRewrite.h"
#include "mp4/DataExtensions.h"
#include "platform/ForwardingFileManager.h"
#include "remux/RemuxFixture.h"
#include "support/ParameterSetBuilder.h"

namespace tarn {
namespace {

using namespace test;

class SeveralEntries : public RemuxTest {};

TEST_F(SeveralEntries, AreMadeFromTheEntryInUse) {
  const Bytes sps = HEVCSPS{.width = 640, .height = 480}.bytes(), vps = hevcVPS(0, 1), slice = {0x26, 1, 0xAA, 0xBB};
  const Bytes otherSPS = HEVCSPS{.id = 1, .width = 320, .height = 240}.bytes();
  const auto of = [](const std::vector<Bytes>& units) { return sampleOf(units, 2); };
  const Bytes first = of({vps, sps, hevcPPS(0, 1), slice}), resized = of({vps, otherSPS, hevcPPS(1, 2), slice});
  Bytes media, sizes;
  for (const Bytes& sample : {first, of({slice}), resized}) {
    ByteWriter(sizes).uint32(static_cast<uint32_t>(sample.size()));
    ByteWriter(media).bytes(sample);
  }
  // The second of three entries describes all samples.
  const Bytes inUse = visualSampleEntry("encv"), other = visualSampleEntry("hev1");
  const Bytes video =
      trackBox("vide", {sampleDescriptionBox({other, inUse, other}), box("stsz", {values({0, 0, 3}), sizes}),
                        fullBox("stsc", {1, 1, 3, 2}), fullBox("stco", {1, 8})});
  const Bytes moov = box("moov", {box("trak", {mediaBox("soun")}), video});
  const Bytes movie = joined({box("mdat", {media}), moov});
  const std::string result = "encv 640x480 encv 320x240 1/1/1 3/1/2 stco 3 ";
  write(movie);
  repair();
  EXPECT_EQ(describe(written()), result);
  const Bytes hvcC = BoxEditor(written()).get(sampleTable + "/stsd/encv/hvcC");
  EXPECT_EQ(hvcC.at(8 + 21) & 3, 1) << "lengths of two bytes";
  // Segments that nobody has found yet.
  auto file = open(movie);
  const MP4BoxInfo place = *MP4BoxUtils::findTopLevelBox(*file, "moov");
  MP4Remuxer::remuxWithMultipleSampleEntries(files_, file_, place, moov, 2, *file, timings_);
  EXPECT_EQ(describe(written()), result);

  const BoxEditor avc(readFile(files_, joinedVideo({inBand(false), inBand(false, "256x160")})));
  const auto remuxed = [&](const std::vector<ConfigurationSegment>& segments) {
    file = open(avc.bytes);
    MP4Remuxer::remuxAVCWithMultipleSampleEntries(files_, file_, *MP4BoxUtils::findTopLevelBox(*file, "moov"),
                                                  avc.get("moov"), 4, *file, timings_, segments);
    return describe(written());
  };
  EXPECT_THAT(remuxed({}), testing::StartsWith("avc1 192x144 avc1 256x160 1/1/1 51/1/2 "));
  ConfigurationSegment cropped{.endSampleIndex = 99};
  cropped.sets.spsArray = {AVCSPS{.widthInMbs = 1, .cropRight = 8}.bytes()};
  cropped.sets.spsRbspArray = {Bytes(cropped.sets.spsArray[0].begin() + 1, cropped.sets.spsArray[0].end())};
  EXPECT_THAT(remuxed({cropped}), testing::StartsWith("avc1 192x144 1/1/1 ")) << "no entry states a width of 0";
}

TEST_F(SeveralEntries, AreNotMadeForAnotherCodec) {
  for (bool isHEVC : {true, false}) {
    BoxEditor movie(readFile(files_, joinedVideo({inBand(isHEVC), inBand(isHEVC, "256x160")})));
    movie.rename(sampleTable + (isHEVC ? "/stsd/hev1" : "/stsd/avc1"), isHEVC ? "avc1" : "hvc1");
    write(movie.bytes);
    const auto remux = [&] {
      isHEVC ? repair() : MP4Remuxer::remuxAVCWithParameterExtraction(files_, file_, "", nullptr, timings_);
    };
    EXPECT_THAT(failureOf(remux),
                testing::HasSubstr(isHEVC ? "has codec 'avc1', not 'hev1'" : "has codec 'hvc1', not"));
    EXPECT_EQ(written(), movie.bytes);
    expectNothingLeftBehind();
  }
}

/// A file system that copies of a whole piece of megabytes the beginning alone, so that a test can afford gigabytes.
/// What a clip holds is shorter than such a piece and stands at its beginning or behind all of them.
struct SparseFiles : ForwardingFileManager {
  using ForwardingFileManager::ForwardingFileManager;
  std::optional<uint64_t> freeSpace(const Path&) override { return std::nullopt; }
  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    return std::make_unique<Handle>(ForwardingFileManager::open(path, mode));
  }

  struct Handle : ForwardingFileHandle {
    using ForwardingFileHandle::ForwardingFileHandle;
    uint64_t copyRange(FileHandle& target, uint64_t count) override {
      constexpr uint64_t beginning = 65'536;
      const uint64_t hole = count >= rewritePieceSize ? count - beginning : 0;
      uint64_t copied = ForwardingFileHandle::copyRange(target, count - hole);
      seek(offset() + hole);
      target.seek(target.offset() + hole);
      return copied + hole;
    }
  };
};

/// All 32-bit chunk offsets of all tracks: where they stand.
std::vector<size_t> shortOffsets(const BoxEditor& movie) {
  std::vector<size_t> places;
  for (const auto& stco : movie.all(sampleTable + "/stco")) {
    for (size_t place = stco.offset + 16; place < stco.end(); place += 4) places.push_back(place);
  }
  return places;
}

TEST_F(SeveralEntries, HaveLongOffsetsIfTheMovedMediaNeedThemAsOneEntryHas) {
  VideoRecipe withSound = inBand(true);
  withSound.more = words("-f lavfi -i sine=r=48000 -map 0 -map 1 -map 1 -c:a aac");
  SparseFiles sparse(files_);
  for (const Path& clip : {joinedVideo({inBand(true), inBand(true, "256x160")}), encodedVideo(withSound)}) {
    const BoxEditor before(withoutParameterSets(MovieLayout(readFile(files_, clip)).moovAhead(), true));
    write(before.bytes);
    repair();
    const BoxEditor plain(written());
    uint32_t last = 0;
    for (size_t place : shortOffsets(plain)) last = std::max(last, plain.field(place));
    const size_t mdat = before.at("mdat").offset;
    for (uint32_t beyond : {0, 1}) {
      // A free box between moov and mdat shifts the last chunk to the last offset that 32 bits hold, or one further.
      const uint32_t gap = UINT32_MAX - last + beyond;
      BoxEditor moved = before;
      for (size_t place : shortOffsets(before)) moved.setField(place, before.field(place) + gap);
      auto file = files_.open(file_, OpenMode::creating);
      file->write(ByteView(moved.bytes).first(mdat));
      file->write(boxClaiming(gap, "free"));
      file->seek(mdat + uint64_t{gap});
      file->write(ByteView(moved.bytes).subspan(mdat));
      file->close();
      ASSERT_EQ(sampleHashes(file_), sampleHashes(clip));

      repair(sparse);
      EXPECT_EQ(sampleHashes(file_), sampleHashes(clip));
      const BoxEditor front(files_.open(file_, OpenMode::reading)->read(1 << 16));
      EXPECT_EQ(front.all(sampleTable + "/co64").empty(), beyond == 0);
    }
  }
}

}  // namespace
}  // namespace tarn
