#include "support/FileTest.h"
#include "support/SyntheticMovie.h"
#include "sync/SyncFixOrder.h"

namespace tarn::test {
namespace {

using Tracks = std::vector<SyntheticTrack>;

/// Ten seconds.
SyntheticTrack pictures(int32_t firstOffset, decltype(SyntheticTrack::edits) edits = {}) {
  return {.handler = "vide",
          .timescale = 90000,
          .sampleEntry = {},
          .stts = {{250, 3600}},
          .ctts = {{1, firstOffset}, {249, firstOffset < 0 ? 0 : firstOffset}},
          .edits = std::move(edits),
          .samples = 250};
}
SyntheticTrack sound(decltype(SyntheticTrack::edits) edits = {}, uint32_t packets = 470) {
  return {.stts = {{packets, 1024}}, .edits = std::move(edits), .samples = packets};
}
SyntheticTrack text(decltype(SyntheticTrack::edits) edits = {}) {
  return {.handler = "text",
          .timescale = 600,
          .sampleEntry = {},
          .stts = {{2, 9000}},
          .edits = std::move(edits),
          .samples = 2};
}

class SyncFixOrders : public FileTest {
 protected:
  std::string ordered(const std::vector<SyntheticTrack>& tracks, uint32_t movieTimescale) {
    const auto order = orderSyncFix(Presentation::read(files_, write(syntheticMovie(tracks, movieTimescale))));
    if (!order.isNeeded()) return "";
    std::string words;
    for (const auto& track : order.tracks) {
      for (const auto& entry : track.list.entries) {
        words += std::to_string(entry.duration) + "@" + std::to_string(entry.mediaTime) + " ";
        EXPECT_EQ(entry.mediaRate, 0x10000);
      }
      words += "(" + std::to_string(track.list.trackDuration) + ") ";
      EXPECT_FALSE(track.list.reason.empty() || track.list.remedy.empty());
    }
    return words + "of " + std::to_string(order.movieDuration);
  }
};

TEST_F(SyncFixOrders, SayExactlyWhatTheMovieShowsWithoutTheDamagedList) {
  const std::vector<std::pair<uint64_t, int64_t>> behind = {{1000, 900'000'000}}, healthy = {{300, -1}, {10000, 0}};
  struct {
    const char* what;
    Tracks tracks;
    uint32_t movieTimescale;
    std::string order;
  } cases[] = {
      {"nothing to do", {pictures(0), sound(healthy)}, 1000, ""},
      {"a late first picture", {pictures(7200), sound()}, 1000, "80@-1 10000@7200 (10080) of 10080"},
      {"rounded to the nearest tick", {pictures(7100), sound()}, 1000, "79@-1 10000@7100 (10079) of 10079"},
      {"the end is reached", {pictures(7200), sound()}, 600, "48@-1 6000@7200 (6048) of 6048"},
      {"the movie lasts as long as its longest track", Tracks{pictures(7200), sound(healthy)}, 1000,
       "80@-1 10000@7200 (10080) of 10300"},
      {"and its text", {pictures(7200), sound(), text()}, 1000, "80@-1 10000@7200 (10080) of 30000"},
      {"less than a tick", {pictures(40), sound()}, 1000, ""},
      {"a tick is too coarse", {pictures(7200), sound()}, 30, ""},
      {"pictures alone", {pictures(7200)}, 1000, ""},
      {"sound alone", {sound(behind)}, 1000, ""},
      {"first at -1", {pictures(-1), sound()}, 1000, ""},
      {"negative and damaged", {pictures(-1, behind), sound()}, 1000, "(10000) of 10027"},
      {"too coarse and damaged", {pictures(7200, behind), sound()}, 30, "(303) of 303"},
      {"sound and text are damaged", Tracks{pictures(0, {{5000, 0}}), sound(behind), text(behind)}, 1000,
       "10027@0 (10027) 30000@0 (30000) of 30000"},
      {"a second look without a list", {pictures(0, healthy), pictures(7200), sound()}, 1000, ""},
      {"no samples", {pictures(0), sound(behind, 0)}, 1000, ""},
      {"times of 64 bits", Tracks{pictures(7200), sound()}, 4'000'000'000,
       "320000000@-1 40000000000@7200 (40320000000) of 40320000000"},
  };
  for (const auto& c : cases) EXPECT_EQ(ordered(c.tracks, c.movieTimescale), c.order) << c.what;
}

}  // namespace
}  // namespace tarn::test
