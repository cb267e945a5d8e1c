#include <functional>

#include "mp4/DataExtensions.h"
#include "remux/RemuxFixture.h"

namespace tarn {
namespace {

using namespace test;

class Damage : public RemuxTest {
 protected:
  /// A movie with its `moov` ahead. One whose picture size changes gets two sample entries.
  Bytes movie(bool isHEVC, bool isChanging) {
    const VideoRecipe recipe = inBand(isHEVC);
    Path file = isChanging ? joinedVideo({recipe, inBand(isHEVC, "256x160")}) : encodedVideo(recipe);
    return MovieLayout(readFile(files_, file)).moovAhead();
  }
};

/// How a test damages the bytes of a file, and in which words.
using Injury = std::pair<std::string, std::function<void(Bytes&)>>;

std::vector<Injury> injuriesOf(const BoxEditor& movie, bool isHEVC, bool isChanging) {
  std::vector<Injury> injuries;
  const std::string entry = sampleTable + (isHEVC ? "/stsd/hev1" : "/stsd/avc3");
  std::vector<std::string> boxes = {"ftyp",      "moov", "moov/trak", "moov/trak/mdia", "moov/trak/mdia/minf",
                                    sampleTable, entry,  "mdat",      entry + "/pasp"};
  for (const std::string table : {"stsd", "stts", "ctts", "stsc", "stsz", "stco", "stss"}) {
    boxes.push_back(sampleTable + "/" + table);
    // A new stsd heals a wrong count, which other readers refuse.
    if (table == "stsd" && isChanging) continue;
    size_t count = movie.at(boxes.back()).offset + (table == "stsz" ? 16 : 12);
    injuries.emplace_back(table + " of 2^32-1 entries", [=](Bytes& bytes) { writeUInt32(bytes, UINT32_MAX, count); });
  }
  for (const std::string& path : boxes) {
    auto at = movie.at(path);
    for (uint32_t size : {0u, 1u, 7u, 15u, 20u, static_cast<uint32_t>(at.size) - 9, UINT32_MAX}) {
      // Media that end ahead of their last samples lose the tail that is too short for a box.
      if (path == "mdat" && size == at.size - 9) continue;
      injuries.emplace_back(fmt::format("{} of {}", path, size),
                            [=](Bytes& bytes) { writeUInt32(bytes, size, at.offset); });
    }
    for (uint64_t size : {uint64_t{0}, uint64_t{15}, uint64_t{1} << 63, UINT64_MAX}) {
      injuries.emplace_back(fmt::format("{} of long {}", path, size), [=](Bytes& bytes) {
        writeUInt32(bytes, 1, at.offset);
        writeUInt64(bytes, size, at.offset + 8);
      });
    }
  }
  size_t sampleSizes = movie.at(sampleTable + "/stsz").offset + 12;
  injuries.emplace_back("stsz of 2^32-1 entries of one byte",
                        [=](Bytes& bytes) { writeUInt64(bytes, uint64_t{1} << 32 | UINT32_MAX, sampleSizes); });
  for (size_t length = 0; length < movie.at("mdat").offset + 200; length += 61) {
    injuries.emplace_back(fmt::format("cut at {}", length), [=](Bytes& bytes) { bytes.resize(length); });
  }
  return injuries;
}

TEST_F(Damage, InSizesCountsAndTablesIsRefusedOrCostsNoSample) {
  TempDirectory elsewhere;
  for (auto [isHEVC, isChanging] : {std::pair(true, false), {false, true}}) {  // each codec, each way of writing
    const Bytes soundTwin = movie(isHEVC, isChanging), sound = withoutParameterSets(soundTwin, isHEVC);
    int repaired = 0, refused = 0;
    for (const auto& [what, damage] : injuriesOf(BoxEditor(sound), isHEVC, isChanging)) {
      // The twin wants no repair, and its boxes lie at the same places: a reader finds the same samples in both.
      Bytes damaged = sound, twin = soundTwin;
      damage(damaged);
      damage(twin);
      write(damaged);
      if (failureOf([&, isHEVC = isHEVC] { repair(isHEVC); }).empty()) {
        writeFileAtomically(files_, elsewhere / "twin.mp4", twin);
        EXPECT_EQ(sampleHashes(file_), sampleHashes(elsewhere / "twin.mp4")) << what;
        ++repaired;
      } else {
        EXPECT_EQ(written(), damaged) << what;
        ++refused;
      }
      expectNothingLeftBehind();
    }
    EXPECT_GT(repaired, 10);
    EXPECT_GT(refused, 100);
  }
}

}  // namespace
}  // namespace tarn
