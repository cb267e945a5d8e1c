#include <algorithm>
#include <functional>
#include <string_view>

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
const std::vector<std::string> withSound = {"-f", "lavfi", "-i", "sine=r=48000", "-map",
                                            "0",  "-map",  "1",  "-c:a",         "aac"};

VideoRecipe part(bool isHEVC, const std::string& size, const std::string& settings = "") {
  return {.codec = isHEVC ? "libx265" : "libx264", .parameters = "repeat-headers=1:keyint=20" + settings, .size = size};
}

struct Child {
  std::string type;
  Bytes bytes;
};

/// The children of the first track's `stbl`.
std::vector<Child> tables(const Bytes& movie) {
  std::vector<Child> children;
  Bytes box = BoxEditor(movie).get(stbl);
  for (size_t p = 8; p < box.size(); p += *readUInt32(box, p)) {
    Bytes child(box.begin() + static_cast<ptrdiff_t>(p), box.begin() + static_cast<ptrdiff_t>(p + *readUInt32(box, p)));
    children.push_back({std::string(textOf(ByteView(child).subspan(4, 4))), child});
  }
  return children;
}

/// The first track's sample entries with their sizes, its `stsc` rows, and its chunk offset tables with their counts.
std::string describe(const Bytes& movie) {
  std::string text;
  for (const auto& [type, box] : tables(movie)) {
    auto field = [&box = box](size_t at) { return *readUInt32(box, at); };
    if (type == "stsd") {
      for (size_t p = 16; p < box.size(); p += field(p)) {
        text += fmt::format("{} {}x{} ", textOf(ByteView(box).subspan(p + 4, 4)), field(p + 32) >> 16,
                            field(p + 32) & 0xFFFF);
      }
    } else if (type == "stsc") {
      for (size_t p = 16; p < box.size(); p += 12)
        text += fmt::format("{}/{}/{} ", field(p), field(p + 4), field(p + 8));
    } else if (type == "stco" || type == "co64") {
      text += fmt::format("{} {} ", type, field(12));
    }
  }
  return text;
}

class SeveralEntries : public RemuxTest {
 protected:
  void repair(bool isHEVC, FileManager& files) {
    if (isHEVC) {
      remuxHEVC(files);
    } else {
      remuxAVC(files);
    }
  }

  /// All children but the three that are written anew are the same, in the same order.
  void expectOtherTablesKept(const Bytes& before, const Bytes& after, const char* what) {
    auto old = tables(before), now = tables(after);
    auto isOffsets = [](const Child& child) { return child.type == "stco" || child.type == "co64"; };
    auto first = std::ranges::find_if(old, isOffsets);
    old.erase(std::remove_if(first + 1, old.end(), isOffsets), old.end());
    ASSERT_EQ(now.size(), old.size()) << what;
    for (size_t i = 0; i < old.size(); ++i) {
      if (isOffsets(old[i]) && isOffsets(now[i])) continue;
      EXPECT_EQ(now[i].type, old[i].type) << what;
      if (old[i].type != "stsd" && old[i].type != "stsc") {
        EXPECT_EQ(now[i].bytes, old[i].bytes) << what << ": " << old[i].type;
      }
    }
  }
};

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
  size_t at = editor.at(stbl).offset + 8;
  for (auto child = children.rbegin(); child != children.rend(); ++child) {
    std::ranges::copy(child->bytes, editor.bytes.begin() + static_cast<ptrdiff_t>(at));
    at += child->bytes.size();
  }
  layout.moov = editor.bytes;
}

TEST_F(SeveralEntries, OneForEachRunOfRealStreams) {
  const VideoRecipe hevc = part(true, "192x144"), hevcLarge = part(true, "256x160");
  const VideoRecipe hevcOther = part(true, "192x144", ":ctu=16");
  const VideoRecipe avc = part(false, "192x144"), avcLarge = part(false, "256x160");
  const VideoRecipe avcLargeID1 = part(false, "256x160", ":sps-id=1"),
                    avcID1 = part(false, "192x144", ":sps-id=1:ref=3");
  VideoRecipe hevcSound = hevc, hevcLargeSound = hevcLarge, avcSound = avc, avcLargeSound = avcLarge;
  for (auto* recipe : {&hevcSound, &hevcLargeSound, &avcSound, &avcLargeSound}) recipe->more = withSound;
  struct {
    const char* what;
    std::vector<VideoRecipe> parts;
    bool isMoovAhead;
    std::string result;
    void (*edit)(MovieLayout&) = nullptr;
  } cases[] = {
      {"size", {hevc, hevcLarge}, false, "hvc1 192x144 hvc1 256x160 1/1/1 51/1/2 stco 100 "},
      {"settings", {hevc, hevcOther}, true, "hvc1 192x144 hvc1 192x144 1/1/1 51/1/2 stco 100 "},
      {"there and back",
       {hevc, hevcLarge, hevc},
       true,
       "hvc1 192x144 hvc1 256x160 hvc1 192x144 1/1/1 51/1/2 101/1/3 stco 150 "},
      {"sound", {hevcSound, hevcLargeSound}, true, "hvc1 192x144 hvc1 256x160 1/1/1 51/1/2 stco 100 "},
      {"long offsets",
       {hevcSound, hevcLargeSound},
       true,
       "hvc1 192x144 hvc1 256x160 1/1/1 51/1/2 stco 100 ",
       useLongOffsets},
      {"order", {hevc, hevcLarge}, true, "stco 100 1/1/1 51/1/2 hvc1 192x144 hvc1 256x160 ", reverseTables},
      {"AVC size", {avc, avcLarge}, false, "avc1 192x144 avc1 256x160 1/1/1 51/1/2 stco 100 "},
      {"AVC size and identifier", {avc, avcLargeID1}, true, "avc1 192x144 avc1 256x160 1/1/1 51/1/2 stco 100 "},
      {"AVC there and back",
       {avcLarge, avc, avcLarge},
       true,
       "avc1 256x160 avc1 192x144 avc1 256x160 1/1/1 51/1/2 101/1/3 stco 150 "},
      {"AVC sound", {avcSound, avcLargeSound}, true, "avc1 192x144 avc1 256x160 1/1/1 51/1/2 stco 100 "},
      {"AVC with both offset tables",
       {avc, avcLarge},
       true,
       "avc1 192x144 avc1 256x160 1/1/1 51/1/2 stco 100 ",
       addLongOffsets},
  };
  for (const auto& c : cases) {
    bool isHEVC = c.parts.front().codec == "libx265";
    Path joined = joinedVideo(c.parts);
    MovieLayout layout(readFile(files_, joined));
    if (c.edit) c.edit(layout);
    MovieLayout::Piece moov{Kind::moov}, mdat{Kind::mdat};
    Bytes sound = layout.build({{Kind::raw, layout.ftyp}, c.isMoovAhead ? moov : mdat, c.isMoovAhead ? mdat : moov});
    write(sound);
    std::string samples = sampleHashes(joined), pictures;
    ASSERT_EQ(sampleHashes(file_), samples) << c.what << ": not well laid out before the repair";
    for (const VideoRecipe& recipe : c.parts) pictures += pictureHashes(encodedVideo(recipe));
    Bytes before = withoutParameterSets(sound, isHEVC);
    write(before);

    repair(isHEVC, files_);
    Bytes after = written();
    EXPECT_EQ(describe(after), c.result) << c.what;
    EXPECT_EQ(sampleHashes(file_), samples) << c.what;
    EXPECT_EQ(pictureHashes(file_), pictures) << c.what;
    EXPECT_EQ(std::ranges::count(pictures, '\n'), 50 * static_cast<ptrdiff_t>(c.parts.size())) << c.what;
    EXPECT_EQ(decoderComplaints(file_), "") << c.what;
    EXPECT_EQ(BoxEditor(after).get("moov/trak/tkhd"), BoxEditor(before).get("moov/trak/tkhd")) << c.what;
    expectOtherTablesKept(before, after, c.what);
    EXPECT_TRUE(timings_->isMultipleSampleEntries);
    repair(isHEVC, files_);
    EXPECT_EQ(written(), after) << c.what << ": a second repair changes nothing";
    expectNothingLeftBehind();
    timings_.reset();
  }
  for (const char* line : {"INFO: Video has dynamic resolution changes: 192x144, 256x160",
                           "INFO: Parameter set IDs are reused with different content",
                           "Using multiple sample entries approach for correct playback...",
                           "\n=== Multiple Sample Entries Remuxing (Option 2) ===",
                           "Total samples: 150, sync samples: 9",
                           "Detected 3 configuration segment(s)",
                           "Using sample description index 1 (entry 0) as template",
                           "Building sample entry 2/3...",
                           "  Segment resolution: 256x160",
                           "  New stsc: 52 bytes",
                           "  New chunk offsets: 616 bytes",
                           "Replaced stsc in original position (new: 40 bytes, old: 28 bytes)",
                           "Replaced co64 with stco in original position (new: 416 bytes, old: 816 bytes)",
                           "NOTE: Preserving original tkhd dimensions for dynamic resolution video",
                           "Phase 2 complete: Video remuxed successfully with multiple sample entries",
                           "AVC INFO: Video has dynamic resolution changes: 192x144, 256x160",
                           "AVC: Using multiple sample entries approach...",
                           "\n=== AVC Multiple Sample Entries Remuxing ===",
                           "AVC: Building sample entry 3/3...",
                           "  AVC Segment resolution: 256x160",
                           "Skipping duplicate chunk offset box: co64 (already replaced)",
                           "AVC Phase 2 complete: Video remuxed with multiple sample entries"}) {
    EXPECT_TRUE(log_.contains(line)) << line;
  }

  // One entry is enough where the size stays and no HEVC identifier comes again with other content.
  Path joined = joinedVideo({avc, avcID1});
  write(withoutParameterSets(readFile(files_, joined), false));
  remuxAVC(files_);
  EXPECT_TRUE(describe(written()).starts_with("avc1 192x144 1/")) << describe(written());
  EXPECT_FALSE(timings_->isMultipleSampleEntries);
  EXPECT_EQ(sampleHashes(file_), sampleHashes(joined));
  EXPECT_EQ(pictureHashes(file_), pictureHashes(encodedVideo(avc)) + pictureHashes(encodedVideo(avcID1)));
}

/// Turns the parameter sets at the front of a sample into filler data.
void hideParameterSets(Bytes& movie, size_t sample, bool isHEVC) {
  for (size_t p = sample;; p += 4 + *readUInt32(movie, p)) {
    uint8_t& header = movie[p + 4];
    int type = isHEVC ? header >> 1 & 63 : header & 31;
    if (isHEVC ? type < 32 : type >= 1 && type <= 5) return;
    bool isSet = isHEVC ? type <= 34 : type == 7 || type == 8;
    if (isSet) header = isHEVC ? 38 << 1 : 12;
  }
}

TEST_F(SeveralEntries, OneForASyncSampleWithoutSets) {
  for (bool isHEVC : {true, false}) {
    Path joined = joinedVideo({part(isHEVC, "192x144"), part(isHEVC, "256x160")});
    auto syncs = syncSamples(joined);
    Bytes movie = readFile(files_, joined);
    hideParameterSets(movie, syncs.at(1).second, isHEVC);
    write(movie);
    std::string samples = sampleHashes(file_), tag = isHEVC ? "hvc1" : "avc1";
    write(withoutParameterSets(movie, isHEVC));
    repair(isHEVC, files_);
    EXPECT_EQ(describe(written()), fmt::format("{0} 192x144 {0} 192x144 {0} 192x144 {0} 256x160 1/1/1 {1}/1/2 {2}/1/3 "
                                               "51/1/4 stco 100 ",
                                               tag, syncs.at(1).first + 1, syncs.at(2).first + 1));
    EXPECT_EQ(sampleHashes(file_), samples);
    Bytes stsd = tables(written()).front().bytes;
    size_t second = 16 + *readUInt32(stsd, 16);
    Bytes entry(stsd.begin() + static_cast<ptrdiff_t>(second), stsd.end());
    size_t config = textOf(entry).find(isHEVC ? "hvcC" : "avcC");
    EXPECT_EQ(*readUInt32(entry, config - 4), isHEVC ? 40u : 15u) << "a record without parameter sets";
  }
}

/// A movie of two HEVC sync samples with these SPS and PPS; the second of three entries describes both.
Bytes movieOf(const Bytes& firstSPS, const Bytes& secondSPS, uint32_t secondPPSID, std::string_view tag) {
  const Bytes slice = {0x26, 1, 0xAA, 0xBB};
  Bytes first = sampleOf({hevcVPS(0, 1), firstSPS, hevcPPS(0, 1), slice});
  Bytes second = sampleOf({hevcVPS(0, 1), secondSPS, hevcPPS(secondPPSID, 2), slice});
  auto size = [](const Bytes& bytes) { return static_cast<uint32_t>(bytes.size()); };
  Bytes stsd = sampleDescriptionBox(
      {visualSampleEntry("hev1"), visualSampleEntry(tag, {box("pasp", {Bytes(8)})}), visualSampleEntry("hev1")});
  return joined({box("mdat", {first, second}),
                 box("moov", {trackBox("soun", {}),
                              trackBox("vide", {stsd, fullBox("stsz", {0, 2, size(first), size(second)}),
                                                fullBox("stsc", {1, 1, 2, 2}), fullBox("stco", {1, 8})})})});
}

/// The bytes of the `stsd` in the second track of such a movie.
Bytes descriptions(const Bytes& movie) {
  size_t at = textOf(movie).find("stsd") - 4;
  return {movie.begin() + static_cast<ptrdiff_t>(at),
          movie.begin() + static_cast<ptrdiff_t>(at + *readUInt32(movie, at))};
}

TEST_F(SeveralEntries, AreMadeFromTheEntryInUse) {
  const Bytes sps = HEVCSPS{.width = 640, .height = 480}.bytes();
  const Bytes otherID = HEVCSPS{.id = 1, .width = 640, .height = 480}.bytes();
  const Bytes otherIDAndSize = HEVCSPS{.id = 1, .width = 320, .height = 240}.bytes();
  for (std::string tag : {"hev1", "encv"}) {
    write(movieOf(sps, otherIDAndSize, 1, tag));
    remuxHEVC(files_);
    Bytes stsd = descriptions(written());
    EXPECT_TRUE(log_.contains("Using sample description index 2 (entry 1) as template"));
    EXPECT_EQ(*readUInt32(stsd, 12), 2u);
    size_t second = 16 + *readUInt32(stsd, 16);
    EXPECT_EQ(second + *readUInt32(stsd, second), stsd.size());
    for (auto [entry, size] : {std::pair<size_t, uint32_t>(16, 640 << 16 | 480), {second, 320 << 16 | 240}}) {
      EXPECT_EQ(textOf(ByteView(stsd).subspan(entry + 4, 4)), tag == "encv" ? "encv" : "hvc1");
      EXPECT_EQ(readUInt32(stsd, entry + 32), size);
      EXPECT_EQ(textOf(ByteView(stsd).subspan(entry + 90, 4)), "pasp");
    }
  }

  // Other identifiers and the same size: one entry, the first, holds all.
  write(movieOf(sps, otherID, 1, "hev1"));
  remuxHEVC(files_);
  Bytes stsd = descriptions(written());
  EXPECT_EQ(*readUInt32(stsd, 12), 3u);
  size_t config = textOf(stsd).find("hvcC") - 4;
  auto record = readHvcC(ByteView(stsd).subspan(config + 8, *readUInt32(stsd, config) - 8));
  EXPECT_THAT(record.arrays.at(1).nalUnits, testing::ElementsAre(sps, otherID));
  EXPECT_EQ(record.arrays.at(2).nalUnits.size(), 2u);

  // A PPS identifier comes again with other content.
  write(movieOf(sps, sps, 0, "hev1"));
  remuxHEVC(files_);
  EXPECT_EQ(*readUInt32(descriptions(written()), 12), 2u);
}

/// A file system that does not copy the bytes of a hole, so that a test can afford a file of 4 GiB.
class SparseFiles : public ForwardingFileManager {
 public:
  using ForwardingFileManager::ForwardingFileManager;
  uint64_t holeBegin = 0, holeEnd = 0;

  std::optional<uint64_t> freeSpace(const Path&) override { return std::nullopt; }
  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    return std::make_unique<Handle>(*this, ForwardingFileManager::open(path, mode));
  }

 private:
  struct Handle : ForwardingFileHandle {
    Handle(SparseFiles& owner, std::unique_ptr<FileHandle> handle)
        : ForwardingFileHandle(std::move(handle)), files(owner) {}
    uint64_t copyRange(FileHandle& target, uint64_t count) override {
      if (offset() < files.holeBegin || offset() + count > files.holeEnd) {
        return ForwardingFileHandle::copyRange(target, count);
      }
      seek(offset() + count);
      target.seek(target.offset() + count);
      return count;
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
  remuxHEVC(files_);
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
    sparse.holeBegin = mdat + 0xA00000;
    sparse.holeEnd = mdat + uint64_t{gap};
    auto file = files_.open(file_, OpenMode::creating);
    file->write(head);
    file->write(boxClaiming(gap, "free"));
    file->seek(sparse.holeEnd);
    file->write(ByteView(before).subspan(mdat));
    file->close();
    ASSERT_EQ(sampleHashes(file_), sampleHashes(joined));

    remuxHEVC(sparse);
    EXPECT_EQ(sampleHashes(file_), sampleHashes(joined));
    Bytes front = files_.open(file_, OpenMode::reading)->read(1 << 16);
    EXPECT_EQ(describe(front),
              fmt::format("hvc1 192x144 hvc1 256x160 1/1/1 51/1/2 {} 100 ", beyond == 1 ? "co64" : "stco"));
  }
  EXPECT_TRUE(log_.contains("Generated 100 chunk offsets, need co64: true"));
}

}  // namespace
}  // namespace tarn
