#include <algorithm>

#include "movie/MovieRewrite.h"
#include "mp4/DataExtensions.h"
#include "parameters/HEVCConfigurationBox.h"
#include "platform/ForwardingFileManager.h"
#include "remux/RemuxFixture.h"
#include "support/ParameterSetBuilder.h"

namespace tarn {
namespace {

using namespace test;

class SeveralEntries : public RemuxTest {};

TEST_F(SeveralEntries, TakeThePlacesOfTheOldTables) {
  const Bytes stsd = box("stsd", {Bytes(9)}), stsc = box("stsc", {Bytes(5)}), co64 = box("co64", {Bytes(3)});
  const Bytes odd = box("\xA9xyz"), stts = box("stts", {Bytes(4)}), damaged = boxClaiming(99, "ctts", {Bytes(8)});
  const Bytes old =
      box("stbl", {odd, fullBox("stco", {}), stts, box("stsc"), fullBox("co64", {}), box("stsd"), damaged});
  EXPECT_EQ(MP4Remuxer::replaceBoxesInStbl(old, stsd, stsc, co64), box("stbl", {odd, co64, stts, stsc, stsd}));
}

TEST_F(SeveralEntries, AreMadeFromTheEntryInUse) {
  const Bytes sps = HEVCSPS{.width = 640, .height = 480}.bytes(), vps = hevcVPS(0, 1), slice = {0x26, 1, 0xAA, 0xBB};
  const Bytes otherID = HEVCSPS{.id = 1, .width = 640, .height = 480}.bytes();
  const Bytes otherIDAndSize = HEVCSPS{.id = 1, .width = 320, .height = 240}.bytes();
  const auto of = [](const std::vector<Bytes>& units) { return sampleOf(units, 2); };
  const Bytes first = of({vps, sps, hevcPPS(0, 1), slice}), noSets = of({slice});
  const Bytes resized = of({vps, otherIDAndSize, hevcPPS(1, 2), slice});
  struct {
    std::string_view tag;  ///< of the second of three entries, which describes all samples
    std::vector<Bytes> samples;
    std::string_view result;
  } cases[] = {
      {"hev1", {first, resized}, "hvc1 640x480 hvc1 320x240 1/1/1 2/1/2 stco 2 "},
      {"encv", {first, resized}, "encv 640x480 encv 320x240 1/1/1 2/1/2 stco 2 "},
      {"hev1", {first, noSets, resized, noSets}, "hvc1 640x480 hvc1 320x240 1/1/1 3/1/2 stco 4 "},
      // A PPS comes again with other content; then one entry, the first, can hold all.
      {"hev1", {first, of({vps, sps, hevcPPS(0, 2)})}, "hvc1 640x480 hvc1 640x480 1/1/1 2/1/2 stco 2 "},
      {"hev1", {first, of({vps, otherID, hevcPPS(1, 2)})}, "hvc1 0x0 hev1 8x6 hev1 0x0 1/2/2 stco 1 "},
  };
  for (const auto& [tag, samples, result] : cases) {
    Bytes media, sizes;
    auto count = static_cast<uint32_t>(samples.size());
    for (const Bytes& sample : samples) {
      ByteWriter(sizes).uint32(static_cast<uint32_t>(sample.size()));
      ByteWriter(media).bytes(sample);
    }
    Bytes inUse = visualSampleEntry(tag), other = visualSampleEntry("hev1");
    writeUInt32(inUse, 8 << 16 | 6, 32);
    Bytes video =
        trackBox("vide", {sampleDescriptionBox({other, inUse, other}), box("stsz", {values({0, 0, count}), sizes}),
                          fullBox("stsc", {1, 1, count, 2}), fullBox("stco", {1, 8})});
    const Bytes moov = box("moov", {box("trak", {mediaBox("soun")}), video}),
                movie = joined({box("mdat", {media}), moov});
    write(movie);
    repair(true);
    EXPECT_EQ(describe(written()), result);
    if (result.starts_with("hvc1 0x0")) continue;  // one entry
    // Segments that nobody has found yet.
    auto file = open(movie);
    const MP4BoxInfo place = *MP4BoxUtils::findTopLevelBox(*file, "moov");
    MP4Remuxer::remuxWithMultipleSampleEntries(files_, file_, place, moov, 2, *file, timings_);
    EXPECT_EQ(describe(written()), result);
    file = open(movie);
    MP4Remuxer::writeAtomicMP4(files_, file_, place, BoxEditor(written()).get("moov"), *file, timings_);
    EXPECT_EQ(written(), movie) << "the moov as it was";
  }
  EXPECT_TRUE(log_.contains("Using sample description index 2 (entry 1) as template"));
  auto record = readHvcC(ByteView(BoxEditor(written()).get(sampleTable + "/stsd/hvc1/hvcC")).subspan(8));
  EXPECT_EQ(record.lengthSizeMinusOne, 1);
  EXPECT_THAT(record.arrays.at(1).nalUnits, testing::ElementsAre(sps, otherID));
  EXPECT_EQ(record.arrays.at(2).nalUnits.size(), 2u);
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
    repair(true);
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

      repair(true, sparse);
      EXPECT_EQ(sampleHashes(file_), sampleHashes(clip));
      const BoxEditor front(files_.open(file_, OpenMode::reading)->read(1 << 16));
      EXPECT_EQ(front.all(sampleTable + "/co64").empty(), beyond == 0);
    }
  }
  EXPECT_TRUE(log_.contains("Generated 100 chunk offsets, need co64: true"));
}

}  // namespace
}  // namespace tarn
