#include <gtest/gtest.h>

#include <limits>

#include "sync/ErrorTypes.h"
#include "sync/SyncFixPlan.h"

namespace tarn::test {
namespace {

constexpr int64_t highest = std::numeric_limits<int64_t>::max();

std::string text(const std::optional<PlannedEditList>& list) {
  if (!list) return "none";
  std::string result;
  int64_t duration = 0;
  for (const EditListEntry& row : list->entries) {
    result += std::to_string(row.duration) + "@" + std::to_string(row.mediaTime) + " ";
    duration += row.duration;
    EXPECT_EQ(row.mediaRate, 0x10000);
  }
  EXPECT_EQ(list->trackDuration, duration);
  return result;
}

/// A movie of 10 s: video at 90000, audio at 48000.
SyncFixFacts facts(uint32_t movieTimescale, int64_t firstCts, const std::optional<OriginalSyncInfo>& original = {}) {
  return {.movieTimescale = movieTimescale,
          .video = {.firstCts = firstCts, .timescale = 90000, .duration = 900000, .hasCtts = true},
          .audio = {.trackTimescale = 48000, .duration = 480000, .codec = "mp4a"},
          .original = original};
}

OriginalSyncInfo captured(double offsetSeconds, int64_t audioMediaTime, std::optional<int64_t> leadingEmptyEdit = {}) {
  OriginalSyncInfo original;
  original.syncOffsetSeconds = offsetSeconds;
  original.audioMediaTime = audioMediaTime;
  original.movieTimescale = 1000;
  if (leadingEmptyEdit) original.audioEditList.push_back({*leadingEmptyEdit, -1, 0x10000});
  original.audioEditList.push_back({10000, audioMediaTime, 0x10000});
  return original;
}

/// The audio was replaced by AAC, whose default delay counts.
SyncFixFacts replaced(SyncFixFacts given) {
  given.audioWasTranscoded = true;
  given.audio.encoderDelay = 2112;
  return given;
}

TEST(SyncFixPlan, FollowsTheRules) {
  SyncFixFacts negativeOffsets = facts(1000, 0);
  negativeOffsets.video.minCts = -3000;
  OriginalSyncInfo withoutRows = captured(0.02, 0), at44100 = captured(0.3, 882);
  withoutRows.audioEditList.clear();
  at44100.audioTrackTimescale = 44100;
  struct {
    const char* situation;
    SyncFixFacts facts;
    const char *video, *audio;
  } cases[] = {
      {"plain file", facts(1000, 0), "none", "none"},
      {"B-frames, nothing captured", facts(1000, 3000), "9967@3000 ", "9967@1600 "},
      {"late, no B-frames", facts(1000, 0, captured(0.3, 1024)), "none", "300@-1 9979@1024 "},
      {"late, B-frames", facts(1000, 3000, captured(0.3, 0)), "9967@3000 ", "300@-1 10000@0 "},
      {"early", facts(1000, 3000, captured(-0.3, 1024)), "300@-1 9967@3000 ", "9979@1024 "},
      {"early, no B-frames", facts(1000, 0, captured(-0.3, 0)), "300@-1 10000@0 ", "10000@0 "},
      {"at the tolerance", facts(1000, 0, captured(0.05, 0)), "none", "10000@0 "},
      {"a tick above", facts(1000, 0, captured(0.051, 0)), "none", "51@-1 10000@0 "},
      {"early at the tolerance", facts(1000, 0, captured(-0.05, 0)), "10000@0 ", "10000@0 "},
      {"tolerance at 90000", facts(90000, 0, captured(4500 / 90000.0, 0)), "none", "900000@0 "},
      {"above it", facts(90000, 0, captured(4501.5 / 90000, 0)), "none", "4501@-1 900000@0 "},
      {"tolerance at 30", facts(30, 0, captured(1.0 / 30, 0)), "none", "300@0 "},
      {"above it", facts(30, 0, captured(2.0 / 30, 0)), "none", "2@-1 300@0 "},
      {"empty edit below the tolerance", facts(1000, 0, captured(0.02, 0, 20)), "none", "20@-1 10000@0 "},
      {"no entries captured", facts(1000, 0, withoutRows), "none", "10000@0 "},
      {"captured in other timescales", facts(600, 0, at44100), "none", "180@-1 5988@960 "},
      {"replaced", replaced(facts(1000, 3000, captured(-0.02, 1024))), "9967@3000 ", "10000@0 "},
      {"replaced, nothing captured", replaced(facts(1000, 0)), "none", "10000@0 "},
      {"replaced, empty edit", replaced(facts(1000, 3000, captured(0.3, 0, 300))), "9967@3000 ", "300@-1 10000@0 "},
      {"negative offsets", negativeOffsets, "10000@0 ", "none"},
  };
  for (const auto& c : cases) {
    SyncFixPlan plan = planSyncFix(c.facts);
    EXPECT_EQ(text(plan.video), c.video) << c.situation;
    EXPECT_EQ(text(plan.audio), c.audio) << c.situation;
  }
}

TEST(SyncFixPlan, RefusesTimesThatLeave64Bits) {
  auto withDuration = [](int64_t video, int64_t audio, int64_t firstCts) {
    auto given = facts(4000000000, firstCts);
    given.video.duration = video;
    given.audio.duration = audio;
    return given;
  };
  OriginalSyncInfo noTimescale = captured(0, 1024);
  noTimescale.audioTrackTimescale = 0;
  for (const SyncFixFacts& given :
       {withDuration(-2, 0, highest), withDuration(highest, 0, 1), withDuration(900000, highest, 1),
        facts(1000, 0, captured(1e300, 0)), facts(1000, 0, captured(0, 1024, highest)),
        facts(1000, 0, captured(-1, 0, -highest - 1)), facts(1000, 0, noTimescale)}) {
    EXPECT_THROW(planSyncFix(given), AVSyncError);
  }
}

}  // namespace
}  // namespace tarn::test
