#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "support/BoxBuilder.h"
#include "sync/CApiCheck.h"
#include "sync/MP4AVSync.h"

namespace tarn::test {
namespace {

int32_t length(const Bytes& bytes) {
  return static_cast<int32_t>(bytes.size());
}

/// The rows of a table box.
Bytes rowsOf(const Bytes& table) {
  return {table.begin() + 16, table.end()};
}

constexpr int64_t highest = std::numeric_limits<int64_t>::max();
constexpr int64_t lowest = std::numeric_limits<int64_t>::min();
constexpr uint32_t version1 = 0x01000000;

TEST(AVSyncRescale, RoundsHalvesUpAndDividesIn128Bits) {
  struct Row {
    int64_t value, to, from, expected;
  };
  for (const Row& row : std::vector<Row>{{7, 1, 2, 4},
                                         {-7, 1, 2, -3},
                                         {-12, 1, 5, -2},
                                         {-21, 10, 100, -1},
                                         {-21, 1, 10, -1},
                                         {3712, 1000, 48000, 77},
                                         {0, 5, 0, 0},
                                         {5, 5, 0, 0},
                                         {0, 5, 7, 0},
                                         {highest, highest, highest, highest},
                                         {lowest, highest, highest, lowest + 1},
                                         {1'000'000'000'000, 90'000'000'000, 90'000'000'000, 1'000'000'000'000}}) {
    EXPECT_EQ(avsync_rescale(row.value, row.to, row.from), row.expected)
        << row.value << "*" << row.to << "/" << row.from;
  }
  EXPECT_EQ(avsync_rescale(lowest, lowest, -1), 0) << "the low 64 bits of the quotient -2^126";
}

TEST(AVSyncAnalysis, MeasuresAVideoAgainstItsEditList) {
  AVSyncVideoTiming video{0, 900, 90000, 1000, 90000};
  AVSyncElstEntry list[] = {{100, -1, 0}, {1000, 0, 0}};
  AVSyncAnalysis atLimit = avsync_analyze(&video, list, 2);
  EXPECT_EQ(atLimit.offset_ms, -10.0);
  EXPECT_FALSE(atLimit.needs_fix);
  EXPECT_EQ(atLimit.first_pts, 900);
  video.first_cts = 901;
  EXPECT_TRUE(avsync_analyze(&video, list, 2).needs_fix);
  list[1].media_time = 901;
  EXPECT_EQ(avsync_analyze(&video, list, 2).elst_media_time, 901);
  EXPECT_FALSE(avsync_analyze(&video, list, 2).needs_fix);
  video.timescale = 0;
  EXPECT_EQ(avsync_analyze(&video, nullptr, 0).offset_ms, 0);
  EXPECT_EQ(avsync_analyze(nullptr, list, 2).first_pts, 0);
}

TEST(AVSyncAnalysis, ComparesTwoTracks) {
  AVSyncTrackTiming video{0, 3000, 0, 0, 90000, 0, 900000};
  AVSyncTrackTiming audio{0, 0, 0, 2112, 48000, 0, 480000};
  AVSyncCrossTrackAnalysis both = avsync_analyze_cross_track(&video, &audio, 1000);
  EXPECT_EQ(both.offset_ms, -11.0) << "33 ticks of video less 44 of encoder delay";
  EXPECT_EQ(both.video_media_time, 3000);
  EXPECT_EQ(both.audio_media_time, 3712);
  EXPECT_TRUE(both.video_needs_edit && both.audio_needs_edit);

  audio.duration = 3712;
  EXPECT_EQ(avsync_analyze_cross_track(&video, &audio, 1000).audio_media_time, 3711);
  audio.duration = 0;
  EXPECT_EQ(avsync_analyze_cross_track(&video, &audio, 1000).audio_media_time, 0);
  video.first_cts = 0;
  video.min_cts = -512;
  audio.encoder_delay = 0;
  AVSyncCrossTrackAnalysis negative = avsync_analyze_cross_track(&video, &audio, 1000);
  EXPECT_EQ(negative.video_media_time, -512);
  EXPECT_TRUE(negative.video_needs_edit);
  EXPECT_FALSE(negative.audio_needs_edit);
  EXPECT_FALSE(avsync_analyze_cross_track(&video, nullptr, 1000).video_needs_edit);
  EXPECT_FALSE(avsync_analyze_cross_track(&video, &audio, 0).video_needs_edit);
}

/// Entries as "duration@media_time", separated by blanks.
std::string text(const AVSyncElstEntry* entries, int32_t count) {
  std::string result;
  for (int32_t i = 0; i < count; ++i) {
    if (i > 0) result += ' ';
    result += std::to_string(entries[i].duration) + "@" + std::to_string(entries[i].media_time);
    EXPECT_EQ(entries[i].media_rate, 0x10000);
  }
  return result;
}

TEST(AVSyncBuild, MakesEditLists) {
  std::array<AVSyncElstEntry, 4> out{};
  AVSyncVideoTiming video{0, 3000, 90000, 1000, 900000};
  auto videoList = [&](int64_t dts, int64_t cts, int32_t allowEmpty) {
    video.first_dts = dts;
    video.first_cts = cts;
    return text(out.data(), avsync_build_video_elst(&video, out.data(), allowEmpty));
  };
  EXPECT_EQ(videoList(0, 3000, 1), "33@-1 10000@3000");
  EXPECT_EQ(videoList(0, 3000, 0), "10000@3000");
  EXPECT_EQ(videoList(0, -3000, 1), "10032@-3000");
  EXPECT_EQ(videoList(-9000, 3000, 1), "10066@9000");

  AVSyncTrackTiming track{0, 0, 0, 0, 48000, 1000, 480000};
  auto trackList = [&](int64_t empty, int64_t mediaTime, int32_t room) {
    return text(out.data(), avsync_build_track_elst(&track, empty, mediaTime, out.data(), room));
  };
  EXPECT_EQ(trackList(0, 2112, 4), "9956@2112");
  EXPECT_EQ(trackList(300, 0, 4), "300@-1 10000@0");
  EXPECT_EQ(trackList(300, -4800, 4), "400@-1 10000@0");
  EXPECT_EQ(trackList(0, 480000, 4), "");
  EXPECT_EQ(trackList(0, 0, 1), "");

  AVSyncGap gaps[] = {{48000, 24000, 0, 0}, {96000, 48000, 0, 0}};
  auto cutList = [&](int32_t count, int64_t mediaTime, int32_t room) {
    return text(out.data(), avsync_build_multi_edit_elst(gaps, count, &track, mediaTime, out.data(), room));
  };
  EXPECT_EQ(cutList(2, 0, 4), "1000@0 500@72000 7000@144000");
  EXPECT_EQ(cutList(2, 0, 2), "1000@0 500@72000");
  EXPECT_EQ(cutList(2, 48000, 4), "500@72000 7000@144000") << "a run that is empty has no entry";
  EXPECT_EQ(cutList(0, 2112, 4), "9956@2112");
  EXPECT_EQ(cutList(-1, 0, 4), "");
  EXPECT_EQ(avsync_build_multi_edit_elst(gaps, 2, nullptr, 0, out.data(), 4), 0);
}

TEST(AVSyncElst, ComesBackAsWrittenInTheSmallestVersion) {
  struct Row {
    std::vector<AVSyncElstEntry> entries;
    int version;
  };
  for (const Row& row : std::vector<Row>{{{{0x7FFFFFFF, -1, 0x10000}, {5, 0x7FFFFFFF, 0x10000}}, 0},
                                         {{{0x80000000, -1, 0x10000}, {5, 3, 0x10000}}, 1},
                                         {{{5, 0x80000000, 0x10000}}, 1},
                                         {{{5, std::numeric_limits<int32_t>::min(), -7}}, 0},
                                         {{{highest, lowest, 0x10000}}, 1}}) {
    auto count = static_cast<int32_t>(row.entries.size());
    int32_t size = avsync_elst_box_size(row.entries.data(), count);
    ASSERT_EQ(size, 16 + count * (row.version == 1 ? 20 : 12));
    Bytes edts(static_cast<size_t>(size) + 8);
    EXPECT_EQ(avsync_write_edts_box(row.entries.data(), count, edts.data(), size + 7), -1);
    EXPECT_EQ(avsync_write_elst_box(row.entries.data(), count, edts.data(), size - 1), -1);
    ASSERT_EQ(avsync_write_edts_box(row.entries.data(), count, edts.data(), size + 8), size + 8);
    EXPECT_EQ(edts[16], row.version);
    std::vector<AVSyncElstEntry> read(row.entries.size());
    ASSERT_EQ(avsync_parse_elst_box(edts.data() + 8, size, read.data(), count), count);
    for (size_t i = 0; i < read.size(); ++i) {
      EXPECT_EQ(read[i].duration, row.entries[i].duration);
      EXPECT_EQ(read[i].media_time, row.entries[i].media_time);
      EXPECT_EQ(read[i].media_rate, row.entries[i].media_rate);
    }
  }
  EXPECT_EQ(roundTripFromC(300, 1024), 1024);
  EXPECT_EQ(roundTripFromC(0x100000000, 0x100000001), 0x100000001);
  EXPECT_EQ(avsync_elst_box_size(nullptr, 1), 0);
  EXPECT_EQ(avsync_write_edts_box(nullptr, 1, nullptr, 100), -1);
}

TEST(AVSyncElst, ReadsNoMoreThanTheLengthHolds) {
  Bytes elst = box("elst", {values({0, 9, 0xFFFFFFFF, 0xFFFFFFFF, 0x10000, 7, 8})});
  std::array<AVSyncElstEntry, 9> out{};
  ASSERT_EQ(avsync_parse_elst_box(elst.data(), length(elst), out.data(), 9), 1);
  EXPECT_EQ(out[0].duration, 0xFFFFFFFF) << "durations of version 0 are unsigned";
  EXPECT_EQ(out[0].media_time, -1);
  EXPECT_EQ(avsync_parse_elst_box(elst.data(), 15, out.data(), 9), 0);
  elst[12] = 0x80;  // a negative count
  EXPECT_EQ(avsync_parse_elst_box(elst.data(), length(elst), out.data(), 9), 0);
  EXPECT_EQ(avsync_parse_elst_box(box("edts", {values({0, 1, 0, 0, 0})}).data(), 28, out.data(), 9), 0);
}

TEST(AVSyncTables, ReadsTimescalesOffsetsAndPriming) {
  Bytes ctts = box("ctts", {values({0, 3, 1, 1024, 1, 0xFFFFFFFF, 1, 5})});
  int64_t first = 9;
  int64_t smallest = 9;
  avsync_parse_ctts(ctts.data(), length(ctts), &first, &smallest);
  EXPECT_EQ(first, 1024);
  EXPECT_EQ(smallest, -1) << "signed in version 0 too";
  avsync_parse_ctts(ctts.data(), length(ctts) - 9, &first, nullptr);
  avsync_parse_ctts(ctts.data(), 24, nullptr, &smallest);
  EXPECT_EQ(smallest, 1024);
  avsync_parse_ctts(nullptr, 0, &first, &smallest);
  EXPECT_EQ(first + smallest, 0);
  EXPECT_EQ(avsync_get_ctts_version(box("ctts", {values({version1, 0})}).data(), 16), 1);
  EXPECT_EQ(avsync_get_ctts_version(ctts.data(), 11), -1);

  Bytes short32 = box("mdhd", {values({0, 0, 0, 90000, 5})});
  Bytes long64 = box("mvhd", {values({version1, 0, 0, 0, 0, 600, 0, 5})});
  EXPECT_EQ(avsync_parse_mdhd_timescale(short32.data(), length(short32)), 90000u);
  EXPECT_EQ(avsync_parse_mvhd_timescale(long64.data(), length(long64)), 600u);
  EXPECT_EQ(avsync_parse_mvhd_timescale(long64.data(), 31), 0u) << "the field ends at 32";
  EXPECT_EQ(avsync_parse_mvhd_timescale(short32.data(), length(short32)), 0u);

  constexpr uint32_t roll = 0x726F6C6C;
  struct Row {
    Bytes fields;
    int64_t samples;
  };
  for (const Row& row : std::vector<Row>{{values({0, roll, 1, 0xFC000000}), 1024},
                                         {values({version1, roll, 2, 1, 0xFC000000}), 1024},
                                         {values({version1, roll, 0, 1, 2, 0x80000000}), 32768},
                                         {values({2 * version1, roll, 2, 0, 1, 0xFFFF0000}), 1},
                                         {values({version1, roll, 2, 1, 0x00040000}), 0},
                                         {values({version1, roll, 2, 0, 0xFC000000}), 0},
                                         {values({version1, roll, 0, 1, 2}), 0},
                                         {values({version1, 0x73796E63, 2, 1, 0xFC000000}), 0}}) {
    const Bytes sgpd = box("sgpd", {row.fields});
    EXPECT_EQ(avsync_parse_sgpd_roll(sgpd.data(), length(sgpd)), row.samples);
  }
  EXPECT_EQ(avsync_get_default_encoder_delay("mp4a.40.2"), 2112);
  EXPECT_EQ(avsync_get_default_encoder_delay(".mp3"), 529);
  EXPECT_EQ(avsync_get_default_encoder_delay("Opus"), 312);
  EXPECT_EQ(avsync_get_default_encoder_delay("ac3 "), 256);
  EXPECT_EQ(avsync_get_default_encoder_delay("mp4"), 0);
  EXPECT_EQ(avsync_get_default_encoder_delay(""), 0);
  EXPECT_EQ(avsync_get_default_encoder_delay(nullptr), 0);
}

TEST(AVSyncTables, ConvertsCttsAndSplitsStts) {
  Bytes ctts = box("ctts", {values({0, 2, 1, 1024, 3, 0})});
  Bytes out(static_cast<size_t>(avsync_ctts_v1_size(ctts.data(), length(ctts))));
  AVSyncCttsConversionInfo info{};
  ASSERT_EQ(avsync_convert_ctts_v0_to_v1(ctts.data(), length(ctts), 512, out.data(), length(out), &info), 32);
  EXPECT_EQ(rowsOf(out), values({1, 512, 3, static_cast<uint32_t>(-512)}));
  EXPECT_EQ(avsync_get_ctts_version(out.data(), length(out)), 1);
  EXPECT_EQ(info.box_size, 32u);
  EXPECT_EQ(avsync_convert_ctts_v0_to_v1(ctts.data(), length(ctts), 0, out.data(), 31, nullptr), -1);
  EXPECT_EQ(avsync_ctts_v1_size(box("ctts", {values({0, 0x10000000})}).data(), 16), -1)
      << "2 GiB do not fit the result";

  Bytes stts = box("stts", {values({0, 3, 4, 10, 2, 25, 0, 99})});
  out.resize(static_cast<size_t>(avsync_split_stts_size(stts.data(), length(stts), 10)));
  ASSERT_EQ(avsync_split_stts_entries(stts.data(), length(stts), 10, out.data(), length(out)), length(out));
  EXPECT_EQ(rowsOf(out), values({4, 10, 1, 10, 1, 10, 1, 5, 1, 10, 1, 10, 1, 5}));
  EXPECT_EQ(out[15], 7);
  EXPECT_EQ(avsync_split_stts_entries(stts.data(), length(stts), 10, out.data(), length(out) - 1), -1);
  EXPECT_EQ(avsync_split_stts_size(stts.data(), length(stts), 0), -1);
  Bytes huge = box("stts", {values({0, 2, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF})});
  EXPECT_EQ(avsync_split_stts_size(huge.data(), length(huge), 1), -1);
}

TEST(AVSyncGaps, FindsDeltasThatStandOut) {
  std::array<AVSyncGap, 4> gaps{};
  AVSyncGapSummary summary{};
  Bytes stts = box("stts", {values({0, 4, 100, 1024, 1, 5000, 100, 1024, 1, 3000})});
  Bytes stss = box("stss", {values({0, 3, 1, 101, 202})});
  auto find = [&](int64_t threshold, int32_t room) {
    return avsync_detect_gaps(stts.data(), length(stts), stss.data(), length(stss), threshold, gaps.data(), room,
                              &summary);
  };
  ASSERT_EQ(find(0, 4), 2);
  EXPECT_EQ(gaps[0].position, 102400);
  EXPECT_EQ(gaps[0].sample_index, 100);
  EXPECT_EQ(gaps[0].excess, 5000 - 1024);
  EXPECT_EQ(gaps[0].is_sync, 1);
  EXPECT_EQ(gaps[1].position, 102400 + 5000 + 102400);
  EXPECT_EQ(gaps[1].is_sync, 1);
  EXPECT_EQ(summary.nominal_delta, 1024);
  EXPECT_EQ(summary.total_excess, 5000 + 3000 - 2 * 1024);
  EXPECT_EQ(find(3000, 4), 1);
  EXPECT_EQ(find(0, 1), 1);
  EXPECT_EQ(find(0, 0), 0);
  EXPECT_EQ(summary.nominal_delta, 0);

  Bytes rows;
  for (uint32_t delta = 1; delta <= 16; ++delta) rows = joined({rows, values({1, delta})});
  // The 17th delta is not counted, though most samples have it.
  stts = box("stts", {values({0, 17}), rows, values({1000, 500})});
  EXPECT_EQ(find(400, 4), 1);
  EXPECT_EQ(summary.nominal_delta, 1) << "the earliest of those with as many samples";
  EXPECT_EQ(gaps[0].excess, 499);
}

}  // namespace
}  // namespace tarn::test
