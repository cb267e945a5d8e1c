#include <algorithm>

#include "mp4/DataExtensions.h"
#include "parameters/HEVCConfigurationBox.h"
#include "platform/ForwardingFileManager.h"
#include "remux/RemuxFixture.h"
#include "support/BoxBuilder.h"
#include "support/MovieLayout.h"
#include "support/ParameterSetBuilder.h"

namespace tarn {
namespace {

using namespace test;
using Kind = MovieLayout::Piece::Kind;

const std::string stbl = "moov/trak/mdia/minf/stbl";

/// A recipe for 2 s that have their parameter sets in the samples.
VideoRecipe part(bool isHEVC, const std::string& size, const std::string& settings = "", const std::string& more = "") {
  return {.codec = isHEVC ? "libx265" : "libx264",
          .parameters = "repeat-headers=1:keyint=20" + settings,
          .size = size,
          .more = words(more)};
}

/// The children of the first track's `stbl`, with their types.
std::vector<std::pair<std::string, Bytes>> tables(const Bytes& movie) {
  std::vector<std::pair<std::string, Bytes>> children;
  Bytes box = BoxEditor(movie).get(stbl);
  for (size_t p = 8; p < box.size(); p += *readUInt32(box, p)) {
    ByteView child = ByteView(box).subspan(p, *readUInt32(box, p));
    children.emplace_back(textOf(child.subspan(4, 4)), Bytes(child.begin(), child.end()));
  }
  return children;
}

/// The first track's sample entries with their sizes, its `stsc` rows, and its chunk offset tables with their counts.
std::string describe(const Bytes& movie) {
  std::string text;
  for (const auto& [type, box] : tables(movie)) {
    auto field = [&box = box](size_t at) { return *readUInt32(box, at); };
    auto tag = [&box = box](size_t at) { return textOf(ByteView(box).subspan(at + 4, 4)); };
    if (type == "stco" || type == "co64") text += fmt::format("{} {} ", type, field(12));
    for (size_t p = 16; p < box.size() && type == "stsd"; p += field(p)) {
      text += fmt::format("{} {}x{} ", tag(p), field(p + 32) >> 16, field(p + 32) & 0xFFFF);
    }
    for (size_t p = 16; p < box.size() && type == "stsc"; p += 12) {
      text += fmt::format("{}/{}/{} ", field(p), field(p + 4), field(p + 8));
    }
  }
  return text;
}

/// The tables that a repair leaves alone.
std::vector<std::pair<std::string, Bytes>> otherTables(const Bytes& movie) {
  auto others = tables(movie);
  std::erase_if(others, [](const auto& table) {
    return table.first == "stsd" || table.first == "stsc" || table.first == "stco" || table.first == "co64";
  });
  return others;
}

void useLongOffsets(MovieLayout& layout) {
  layout.useLongOffsets();
}

void addLongOffsets(MovieLayout& layout) {
  MovieLayout both = layout;
  both.useLongOffsets();
  BoxEditor editor(layout.moov);
  editor.insert(stbl, editor.at(stbl + "/stco").end(), BoxEditor(both.moov).get(stbl + "/co64"));
  layout.moov = editor.bytes;
}

void reverseTables(MovieLayout& layout) {
  auto children = tables(layout.moov);
  BoxEditor editor(layout.moov);
  auto place = editor.bytes.begin() + static_cast<ptrdiff_t>(editor.at(stbl).offset + 8);
  for (auto child = children.rbegin(); child != children.rend(); ++child) {
    place = std::ranges::copy(child->second, place).out;
  }
  layout.moov = editor.bytes;
}

class SeveralEntries : public RemuxTest {};

TEST_F(SeveralEntries, OneForEachRunOfRealStreams) {
  const std::string sound = "-f lavfi -i sine=r=48000 -map 0 -map 1 -c:a aac", small = "192x144", large = "256x160";
  const VideoRecipe hevc = part(true, small), hevcLarge = part(true, large), hevcOther = part(true, small, ":ctu=16");
  const VideoRecipe avc = part(false, small), avcLarge = part(false, large);
  const VideoRecipe avcID1 = part(false, small, ":sps-id=1:ref=3"), avcLargeID1 = part(false, large, ":sps-id=1");
  const VideoRecipe hevcSound = part(true, small, "", sound), hevcLargeSound = part(true, large, "", sound);
  const VideoRecipe avcSound = part(false, small, "", sound), avcLargeSound = part(false, large, "", sound);
  const std::string hevcTwo = "hvc1 192x144 hvc1 256x160 ", avcTwo = "avc1 192x144 avc1 256x160 ";
  const std::string one = "avc1 192x144 1/100/1 stco 1 ", two = "1/1/1 51/1/2 stco 100 ",
                    three = "1/1/1 51/1/2 101/1/3 stco 150 ";
  struct {
    std::vector<VideoRecipe> parts;
    bool isMoovAhead;
    std::string result;
    void (*edit)(MovieLayout&) = nullptr;
  } cases[] = {
      {{hevc, hevcLarge}, false, hevcTwo + two},
      {{hevc, hevcOther}, true, "hvc1 192x144 hvc1 192x144 " + two},
      {{hevc, hevcLarge, hevc}, true, hevcTwo + "hvc1 192x144 " + three},
      {{hevcSound, hevcLargeSound}, true, hevcTwo + two},
      {{hevcSound, hevcLargeSound}, true, hevcTwo + two, useLongOffsets},
      {{hevc, hevcLarge}, true, "stco 100 1/1/1 51/1/2 " + hevcTwo, reverseTables},
      {{avc, avcLarge}, false, avcTwo + two},
      {{avc, avcLargeID1}, true, avcTwo + two},
      {{avcLarge, avc, avcLarge}, true, "avc1 256x160 " + avcTwo + three},
      {{avcSound, avcLargeSound}, true, avcTwo + two},
      {{avc, avcLarge}, true, avcTwo + two, addLongOffsets},
      // One entry is enough where the size stays and no HEVC identifier comes again with other content.
      {{avc, avcID1}, true, one},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.result + std::to_string(&c - cases));
    bool isHEVC = c.parts.front().codec == "libx265";
    Path joined = joinedVideo(c.parts);
    MovieLayout layout(readFile(files_, joined));
    if (c.edit) c.edit(layout);
    MovieLayout::Piece moov{Kind::moov}, mdat{Kind::mdat};
    Bytes whole = layout.build({{Kind::raw, layout.ftyp}, c.isMoovAhead ? moov : mdat, c.isMoovAhead ? mdat : moov});
    Bytes before = withoutParameterSets(whole, isHEVC);
    timings_.reset();
    expectRepaired(isHEVC, before, sampleHashes(joined));
    Bytes after = written();
    std::string pictures;
    for (const VideoRecipe& recipe : c.parts) pictures += pictureHashes(encodedVideo(recipe));
    EXPECT_EQ(pictureHashes(file_), pictures);
    EXPECT_EQ(std::ranges::count(pictures, '\n'), 50 * static_cast<ptrdiff_t>(c.parts.size()));
    EXPECT_EQ(timings_->isMultipleSampleEntries, c.result != one);
    EXPECT_EQ(describe(after), c.result);
    EXPECT_EQ(BoxEditor(after).get("moov/trak/tkhd"), BoxEditor(before).get("moov/trak/tkhd"));
    EXPECT_EQ(otherTables(after), otherTables(before));
  }
  EXPECT_THAT(
      log_.missing({"INFO: Video has dynamic resolution changes: 192x144, 256x160", "  New stsc: 52 bytes",
                    "INFO: Parameter set IDs are reused with different content", "  Segment resolution: 256x160",
                    "\n=== Multiple Sample Entries Remuxing (Option 2) ===", "  New chunk offsets: 616 bytes",
                    "Using sample description index 1 (entry 0) as template", "Building sample entry 2/3...",
                    "Replaced stsc in original position (new: 40 bytes, old: 28 bytes)",
                    "AVC INFO: Video has dynamic resolution changes: 192x144, 256x160",
                    "Skipping duplicate chunk offset box: co64 (already replaced)",
                    "AVC Phase 2 complete: Video remuxed with multiple sample entries"}),
      testing::IsEmpty());
}

TEST_F(SeveralEntries, AreMadeFromTheEntryInUse) {
  const Bytes sps = HEVCSPS{.width = 640, .height = 480}.bytes(), vps = hevcVPS(0, 1), slice = {0x26, 1, 0xAA, 0xBB};
  const Bytes otherID = HEVCSPS{.id = 1, .width = 640, .height = 480}.bytes();
  const Bytes otherIDAndSize = HEVCSPS{.id = 1, .width = 320, .height = 240}.bytes();
  const Bytes first = sampleOf({vps, sps, hevcPPS(0, 1), slice}), noSets = sampleOf({slice});
  const Bytes resized = sampleOf({vps, otherIDAndSize, hevcPPS(1, 2), slice});
  struct {
    std::string_view tag;  ///< of the second of three entries, which describes all samples
    std::vector<Bytes> samples;
    std::string_view result;
  } cases[] = {
      {"hev1", {first, resized}, "hvc1 640x480 hvc1 320x240 1/1/1 2/1/2 stco 2 "},
      {"encv", {first, resized}, "encv 640x480 encv 320x240 1/1/1 2/1/2 stco 2 "},
      {"hev1", {first, noSets, resized}, "hvc1 640x480 hvc1 0x0 hvc1 320x240 1/1/1 2/1/2 3/1/3 stco 3 "},
      // A PPS comes again with other content; then one entry, the first, can hold all.
      {"hev1", {first, sampleOf({vps, sps, hevcPPS(0, 2)})}, "hvc1 640x480 hvc1 640x480 1/1/1 2/1/2 stco 2 "},
      {"hev1", {first, sampleOf({vps, otherID, hevcPPS(1, 2)})}, "hvc1 0x0 hev1 0x0 hev1 0x0 1/2/2 stco 1 "},
  };
  for (const auto& [tag, samples, result] : cases) {
    Bytes media, sizes;
    auto count = static_cast<uint32_t>(samples.size());
    for (const Bytes& sample : samples) {
      ByteWriter(sizes).uint32(static_cast<uint32_t>(sample.size()));
      ByteWriter(media).bytes(sample);
    }
    Bytes inUse = visualSampleEntry(tag, {box("pasp", {Bytes(8)})}), other = visualSampleEntry("hev1");
    Bytes video =
        trackBox("vide", {sampleDescriptionBox({other, inUse, other}), box("stsz", {values({0, 0, count}), sizes}),
                          fullBox("stsc", {1, 1, count, 2}), fullBox("stco", {1, 8})});
    write(joined({box("mdat", {media}), box("moov", {box("trak", {mediaBox("soun")}), video})}));
    repair(true);
    EXPECT_EQ(describe(written()), result);
    // Each is made from the entry in use, the only one with a pasp.
    size_t newEntries = result.starts_with("hvc1 0x0") ? 1 : samples.size();
    for (const char* type : {"hvcC", "pasp"}) {
      size_t found = 0;
      for (size_t at = 0; (at = textOf(written()).find(type, at + 1)) != std::string_view::npos;) ++found;
      EXPECT_EQ(found, newEntries) << type;
    }
  }
  EXPECT_TRUE(log_.contains("Using sample description index 2 (entry 1) as template"));
  auto record = readHvcC(ByteView(BoxEditor(written()).get(stbl + "/stsd/hvc1/hvcC")).subspan(8));
  EXPECT_THAT(record.arrays.at(1).nalUnits, testing::ElementsAre(sps, otherID));
  EXPECT_EQ(record.arrays.at(2).nalUnits.size(), 2u);
}

/// A file system that does not copy the bytes of a hole, so that a test can afford a file of 4 GiB.
struct SparseFiles : ForwardingFileManager {
  using ForwardingFileManager::ForwardingFileManager;
  uint64_t holeBegin = 0, holeEnd = 0;

  std::optional<uint64_t> freeSpace(const Path&) override { return std::nullopt; }
  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    return std::make_unique<Handle>(*this, ForwardingFileManager::open(path, mode));
  }

  struct Handle : ForwardingFileHandle {
    Handle(SparseFiles& owner, std::unique_ptr<FileHandle> handle)
        : ForwardingFileHandle(std::move(handle)), files(owner) {}
    uint64_t copyRange(FileHandle& target, uint64_t count) override {
      uint64_t begin = offset(), end = begin + count;
      uint64_t skipBegin = std::clamp(files.holeBegin, begin, end), skipEnd = std::clamp(files.holeEnd, begin, end);
      uint64_t copied = ForwardingFileHandle::copyRange(target, skipBegin - begin);
      seek(skipEnd);
      target.seek(target.offset() + skipEnd - skipBegin);
      return copied + skipEnd - skipBegin + ForwardingFileHandle::copyRange(target, end - skipEnd);
    }
    SparseFiles& files;
  };
};

TEST_F(SeveralEntries, HaveLongOffsetsWhenTheMovedMediaNeedThem) {
  Path joined = joinedVideo({part(true, "192x144"), part(true, "256x160")});
  MovieLayout layout(readFile(files_, joined));
  layout.moov = withoutParameterSets(layout.moov, true);
  const Bytes before = layout.build({{Kind::raw, layout.ftyp}, {Kind::moov}, {Kind::mdat}});
  write(before);
  repair(true);
  Bytes offsets = BoxEditor(written()).get(stbl + "/stco");
  uint32_t last = *readUInt32(offsets, offsets.size() - 4);

  SparseFiles sparse(files_);
  const size_t mdat = BoxEditor(before).at("mdat").offset;
  for (uint32_t beyond : {0, 1}) {
    // A free box between moov and mdat shifts the last sample to the last offset that 32 bits hold, or one further.
    uint32_t gap = UINT32_MAX - last + beyond;
    Bytes head(before.begin(), before.begin() + static_cast<ptrdiff_t>(mdat));
    size_t stco = BoxEditor(head).at(stbl + "/stco").offset;
    for (size_t i = 0; i < *readUInt32(head, stco + 12); ++i) {
      writeUInt32(head, *readUInt32(head, stco + 16 + 4 * i) + gap, stco + 16 + 4 * i);
    }
    sparse.holeBegin = mdat + 8;
    sparse.holeEnd = mdat + uint64_t{gap};
    auto file = files_.open(file_, OpenMode::creating);
    file->write(head);
    file->write(boxClaiming(gap, "free"));
    file->seek(sparse.holeEnd);
    file->write(ByteView(before).subspan(mdat));
    file->close();
    ASSERT_EQ(sampleHashes(file_), sampleHashes(joined));

    repair(true, sparse);
    EXPECT_EQ(sampleHashes(file_), sampleHashes(joined));
    Bytes front = files_.open(file_, OpenMode::reading)->read(1 << 16);
    EXPECT_EQ(describe(front),
              fmt::format("hvc1 192x144 hvc1 256x160 1/1/1 51/1/2 {} 100 ", beyond == 1 ? "co64" : "stco"));
  }
  EXPECT_TRUE(log_.contains("Generated 100 chunk offsets, need co64: true"));
}

}  // namespace
}  // namespace tarn
