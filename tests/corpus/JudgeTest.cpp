#include <gmock/gmock.h>

#include "corpus/Clips.h"
#include "corpus/Judge.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using testing::Contains;
using testing::HasSubstr;

/// The judge of the corpus names each harm.
TEST(CorpusJudge, NamesEachHarm) {
  const TempDirectory place;
  const Path whole = clip({});
  const Path twoTracks = muxed("-i {0} -i {1} -map 0 -map 1 -c copy -metadata title=T", {whole, clip({.video = ""})});
  const auto copied = [&](const Path& file, const std::string& options) { return muxed("-i {0} " + options, {file}); };
  const auto listed = [&](const std::string& handler, const std::vector<std::pair<int32_t, int32_t>>& entries) {
    return edited(whole, {list(handler, entries)}, place.path());
  };
  const Path gap = copied(whole, "-c copy -bsf:a noise=drop='between(n,117,135)'");
  const std::string sharp = "-c:v copy -c:a pcm_s16le -af volume=0:enable='between(t,2.475,2.881)'";
  const Path inBand = clip({.video = avcInBand});
  const Path plain = clip({.video = avcPlain});
  struct Row {
    Path source, result;
    std::vector<std::string> words;
    Allowed allowed = {};
  };
  const Row rows[] = {
      {whole, listed("vide", {{3900, 1024}}), {"98 pictures are shown, 100 before", "packets have other flags"}},
      {plain, copied(plain, "-c copy -bsf:v setts=ts='if(gt(N,50),TS+640,TS)'"), {"picture 60 moves by 50.0 ms"}},
      {whole,
       listed("soun", {{5, -1}, {3995, 1024}}),
       {"tables: the beep at 0.200 s is +5.0 ms off", "player: the beep at 0.200 s is +5.0 ms off"}},
      {whole, listed("soun", {{3100, 1024}}), {"player: the beep at 3.200 s is not heard", "sound is missing at 3.1"}},
      {listed("soun", {{3900, 1024}}), whole, {"tables: sound where there was none at 3.9"}},
      {twoTracks, copied(twoTracks, "-map 0:v -map 0:a:0 -c copy"), {"tracks were"}},
      {twoTracks, copied(twoTracks, "-map 0 -c copy -map_metadata -1"), {"metadata was"}},
      {whole, copied(whole, "-c:v libx264 -bf 2 -g 25 -c:a aac"), {"looks otherwise", "track 1: "}},
      {gap, gap, {"still has a gap of 405"}, {.audio = true, .audioStays = false}},
      {gap, copied(gap, sharp + " -f mov"), {"a click at"}, {.audio = true}},
      {inBand, edited(inBand, {keepingSets({7})}, place.path()), {"do not show the pictures"}, {.entries = 1}},
      {inBand,
       edited(inBand, {tagged("avc3")}, place.path()),
       {"the tag is avc3", "1 sample entries, not 2"},
       {.entries = 2}},
  };
  for (const Row& row : rows) {
    const auto found = worsened(row.source, row.result, row.allowed);
    for (const std::string& words : row.words) EXPECT_THAT(found, Contains(HasSubstr(words)));
  }
  EXPECT_THAT(worsened(whole, whole, {.entries = 1}), testing::IsEmpty());
}

}  // namespace
}  // namespace tarn::test
