#include <fmt/format.h>
#include <gtest/gtest.h>
#include <tarn/avsync.h>

#include <array>
#include <limits>
#include <span>
#include <string>
#include <vector>

#include "support/BoxBuilder.h"

extern "C" int64_t rescaledFromC(int64_t value, int64_t to, int64_t from);

namespace tarn::test {
namespace {

int32_t length(const Bytes& bytes) {
  return static_cast<int32_t>(bytes.size());
}

/// What a function says of a whole box.
template <typename Function, typename... More>
auto of(const Bytes& box, Function function, More... more) {
  return function(box.data(), length(box), more...);
}

constexpr int64_t highest = std::numeric_limits<int64_t>::max();
constexpr int64_t lowest = std::numeric_limits<int64_t>::min();
constexpr uint32_t version1 = 0x01000000;
constexpr int32_t rate = 0x10000;

TEST(AVSyncRescale, RoundsHalvesUpAndDividesIn128Bits) {
  const std::array<int64_t, 4> rows[] = {
      {7, 1, 2, 4}, {-7, 1, 2, -3}, {-12, 1, 5, -2}, {5, 5, 0, 0}, {lowest, highest, highest, lowest + 1}};
  for (auto [value, to, from, expected] : rows) {
    EXPECT_EQ(rescaledFromC(value, to, from), expected) << value << "*" << to << "/" << from;
  }
}

TEST(AVSyncAnalysis, MeasuresAVideoAgainstItsEditList) {
  auto measured = [](int64_t firstCts, int64_t mediaTime, uint32_t timescale) {
    const AVSyncVideoTiming video{0, firstCts, timescale, 1000, 90000};
    const AVSyncElstEntry list[] = {{100, -1, 0}, {1000, mediaTime, 0}};
    AVSyncAnalysis result = avsync_analyze(&video, list, 2);
    return fmt::format("{:.3f} ms, edit {}, first {}{}", result.offset_ms, result.elst_media_time, result.first_pts,
                       result.needs_fix ? ", needs a fix" : "");
  };
  EXPECT_EQ(measured(900, 0, 90000), "-10.000 ms, edit 0, first 900");
  EXPECT_EQ(measured(901, 0, 90000), "-10.011 ms, edit 0, first 901, needs a fix");
  EXPECT_EQ(measured(901, 901, 0), "0.000 ms, edit 901, first 901");
}

TEST(AVSyncAnalysis, ComparesTwoTracks) {
  auto compared = [](int64_t firstCts, int64_t minCts, int64_t encoderDelay, int64_t audioDuration,
                     uint32_t movieScale) {
    const AVSyncTrackTiming video{0, firstCts, minCts, 0, 90000, 0, 900000};
    const AVSyncTrackTiming audio{0, 0, 0, encoderDelay, 48000, 0, audioDuration};
    AVSyncCrossTrackAnalysis result = avsync_analyze_cross_track(&video, &audio, movieScale);
    return fmt::format("{} ms, video {} {}, audio {} {}", result.offset_ms, result.video_media_time,
                       result.video_needs_edit, result.audio_media_time, result.audio_needs_edit);
  };
  // 33 ticks of video less 44 of encoder delay.
  EXPECT_EQ(compared(3000, 0, 2112, 480000, 1000), "-11 ms, video 3000 true, audio 3712 true");
  EXPECT_EQ(compared(3000, 0, 2112, 3712, 1000), "-11 ms, video 3000 true, audio 3711 true");
  EXPECT_EQ(compared(0, -512, 0, 480000, 1000), "0 ms, video -512 true, audio 0 false");
  EXPECT_EQ(compared(3000, 0, 2112, 480000, 0), "0 ms, video 0 false, audio 0 false");
}

/// Entries as "duration@media_time", each with a blank behind it; a rate that is not 1 follows.
std::string text(const AVSyncElstEntry* entries, int32_t count) {
  std::string result;
  for (int32_t i = 0; i < count; ++i) {
    result += fmt::format("{}@{} ", entries[i].duration, entries[i].media_time);
    if (entries[i].media_rate != rate) result += fmt::format("rate {} ", entries[i].media_rate);
  }
  return result;
}

TEST(AVSyncBuild, MakesEditLists) {
  std::array<AVSyncElstEntry, 4> out{};
  auto videoList = [&](int64_t dts, int64_t cts, int32_t allowEmpty) {
    const AVSyncVideoTiming video{dts, cts, 90000, 1000, 900000};
    return text(out.data(), avsync_build_video_elst(&video, out.data(), allowEmpty));
  };
  EXPECT_EQ(videoList(0, 3000, 1), "33@-1 10000@3000 ");
  EXPECT_EQ(videoList(0, -3000, 0), "10032@-3000 ");
  EXPECT_EQ(videoList(-9000, 3000, 1), "10066@9000 ");

  const AVSyncTrackTiming track{0, 0, 0, 0, 48000, 1000, 480000};
  auto trackList = [&](int64_t empty, int64_t mediaTime, int32_t room) {
    return text(out.data(), avsync_build_track_elst(&track, empty, mediaTime, out.data(), room));
  };
  EXPECT_EQ(trackList(0, 2112, 4), "9956@2112 ");
  EXPECT_EQ(trackList(300, -4800, 4), "400@-1 10000@0 ");
  EXPECT_EQ(trackList(0, -1, 4), "10000@-1 ") << "only below -1 is it a length";
  EXPECT_EQ(trackList(0, 480000, 4) + trackList(0, 0, 1), "");

  const AVSyncGap gaps[] = {{48000, 24000, 0, 0}, {96000, 48000, 0, 0}};
  auto cutList = [&](int32_t count, int64_t mediaTime, int32_t room) {
    return text(out.data(), avsync_build_multi_edit_elst(gaps, count, &track, mediaTime, out.data(), room));
  };
  EXPECT_EQ(cutList(2, 0, 4), "1000@0 500@72000 7000@144000 ");
  EXPECT_EQ(cutList(2, 48000, 1), "500@72000 ") << "a run that is empty has no entry";
}

TEST(AVSyncElst, ComesBackAsWrittenInTheSmallestVersion) {
  const std::pair<std::vector<AVSyncElstEntry>, int> cases[] = {
      {{{0x7FFFFFFF, -1, rate}, {5, 0x7FFFFFFF, rate}}, 0},
      {{{0x80000000, -1, rate}, {5, 3, rate}}, 1},
      {{{5, 0x80000000, rate}}, 1},
      {{{5, std::numeric_limits<int32_t>::min(), -7}}, 0},
      {{{highest, lowest, rate}}, 1},
  };
  for (const auto& [entries, version] : cases) {
    auto count = static_cast<int32_t>(entries.size());
    int32_t size = avsync_elst_box_size(entries.data(), count);
    ASSERT_EQ(size, 16 + count * (version == 1 ? 20 : 12));
    EXPECT_EQ(avsync_elst_box_size(entries.data(), 0), 0);
    Bytes edts(static_cast<size_t>(size) + 8);
    EXPECT_EQ(avsync_write_edts_box(entries.data(), count, edts.data(), size + 7), -1);
    EXPECT_EQ(avsync_write_elst_box(entries.data(), count, edts.data(), size - 1), -1);
    ASSERT_EQ(avsync_write_edts_box(entries.data(), count, edts.data(), size + 8), size + 8);
    EXPECT_EQ(edts[16], version);
    std::vector<AVSyncElstEntry> read(entries.size());
    ASSERT_EQ(avsync_parse_elst_box(edts.data() + 8, size, read.data(), count), count);
    EXPECT_EQ(text(read.data(), count), text(entries.data(), count));
  }
}

TEST(AVSyncElst, ReadsNoMoreThanTheLengthHolds) {
  auto parsed = [](const Bytes& elst, int32_t bytes) {
    std::array<AVSyncElstEntry, 9> out{};
    return text(out.data(), avsync_parse_elst_box(elst.data(), bytes, out.data(), 9));
  };
  Bytes elst = fullBox("elst", {9, 0xFFFFFFFF, 0xFFFFFFFF, 0x10000, 7, 8});
  EXPECT_EQ(parsed(elst, length(elst)), "4294967295@-1 ") << "durations of version 0 are unsigned";
  EXPECT_EQ(parsed(elst, 15), "");
  elst[12] = 0x80;  // a negative count
  EXPECT_EQ(parsed(elst, length(elst)), "");
  EXPECT_EQ(parsed(fullBox("edts", {1, 0, 0, 0}), 28), "");
}

TEST(AVSyncTables, ReadsTimescalesAndOffsets) {
  const Bytes ctts = fullBox("ctts", {3, 1, 1024, 1, 0xFFFFFFFF, 1, 5});
  auto offsets = [&](int32_t bytes) {
    int64_t first = 9, smallest = 9;
    avsync_parse_ctts(ctts.data(), bytes, &first, nullptr);
    avsync_parse_ctts(ctts.data(), bytes, nullptr, &smallest);
    return std::pair(first, smallest);
  };
  EXPECT_EQ(offsets(length(ctts)), std::pair(1024L, -1L)) << "signed in version 0 too";
  EXPECT_EQ(offsets(31), std::pair(1024L, 1024L));
  EXPECT_EQ(offsets(15), std::pair(0L, 0L));
  EXPECT_EQ(of(box("ctts", {values({version1, 0})}), avsync_get_ctts_version), 1);

  const Bytes short32 = fullBox("mdhd", {0, 0, 90000, 5});
  const Bytes long64 = box("mvhd", {values({version1, 0, 0, 0, 0, 600, 0, 5})});
  EXPECT_EQ(avsync_parse_mdhd_timescale(short32.data(), 24), 90000u);
  EXPECT_EQ(avsync_parse_mdhd_timescale(short32.data(), 23), 0u);
  EXPECT_EQ(avsync_parse_mvhd_timescale(long64.data(), 32), 600u);
  EXPECT_EQ(avsync_parse_mvhd_timescale(long64.data(), 31), 0u);
}

TEST(AVSyncTables, KnowsPriming) {
  constexpr uint32_t roll = 0x726F6C6C;
  const std::pair<Bytes, int64_t> descriptions[] = {
      {values({0, roll, 1, 0xFC000000}), 1024},
      {values({version1, roll, 2, 1, 0xFC000000}), 1024},
      {values({version1, roll, 0, 1, 2, 0x80000000}), 32768},
      {values({2 * version1, roll, 2, 0, 1, 0xFFFF0000}), 1},
      {values({version1, roll, 0, 1, 2}), 0},
      {values({version1, 0x73796E63, 2, 1, 0xFC000000}), 0},
  };
  for (const auto& [fields, samples] : descriptions) {
    EXPECT_EQ(of(box("sgpd", {fields}), avsync_parse_sgpd_roll), samples);
  }
  std::string delays;
  for (const char* codec : {"mp4a.40.2", ".mp3", "Opus", "ac-3", "ac3 ", "ec-3", "mp4", "", (const char*)nullptr}) {
    delays += fmt::format("{} ", avsync_get_default_encoder_delay(codec));
  }
  EXPECT_EQ(delays, "2112 529 312 256 256 256 0 0 0 ");
}

TEST(AVSyncTables, ConvertsCttsAndSplitsStts) {
  const Bytes ctts = fullBox("ctts", {2, 1, 1024, 3, 0});
  Bytes out(static_cast<size_t>(of(ctts, avsync_ctts_v1_size)));
  AVSyncCttsConversionInfo info{};
  ASSERT_EQ(of(ctts, avsync_convert_ctts_v0_to_v1, 512, out.data(), length(out), &info), 32);
  EXPECT_EQ(out, box("ctts", {values({version1, 2, 1, 512, 3, static_cast<uint32_t>(-512)})}));
  EXPECT_EQ(of(ctts, avsync_convert_ctts_v0_to_v1, 0, out.data(), 31, nullptr), -1);
  EXPECT_EQ(of(fullBox("ctts", {0x10000000}), avsync_ctts_v1_size), -1) << "2 GiB do not fit the result";

  const Bytes stts = fullBox("stts", {4, 4, 10, 1, 20, 2, 25, 0, 99});
  out.resize(static_cast<size_t>(of(stts, avsync_split_stts_size, 10)));
  ASSERT_EQ(of(stts, avsync_split_stts_entries, 10, out.data(), length(out)), length(out));
  EXPECT_EQ(out, fullBox("stts", {9, 4, 10, 1, 10, 1, 10, 1, 10, 1, 10, 1, 5, 1, 10, 1, 10, 1, 5}));
  EXPECT_EQ(of(stts, avsync_split_stts_entries, 10, out.data(), length(out) - 1), -1);
  const Bytes huge = fullBox("stts", {2, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF});
  for (const uint32_t delta : {0U, 1U}) EXPECT_EQ(of(huge, avsync_split_stts_size, delta), -1) << delta;
}

TEST(AVSyncGaps, FindsDeltasThatStandOut) {
  const Bytes stss = fullBox("stss", {3, 1, 101, 103});
  auto found = [&](const Bytes& stts, int64_t threshold, int32_t room) {
    std::array<AVSyncGap, 4> gaps{};
    AVSyncGapSummary summary{};
    const int32_t count =
        of(stts, avsync_detect_gaps, stss.data(), length(stss), threshold, gaps.data(), room, &summary);
    EXPECT_EQ(summary.gap_count, count);
    std::string result = fmt::format("nominal {}, {} more:", summary.nominal_delta, summary.total_excess);
    for (const AVSyncGap& gap : std::span(gaps).first(static_cast<size_t>(count))) {
      result += fmt::format(" {}+{} at {}{}", gap.position, gap.excess, gap.sample_index, gap.is_sync ? " sync" : "");
    }
    return result;
  };
  const Bytes stts = fullBox("stts", {4, 100, 1024, 1, 5000, 100, 1024, 1, 3000});
  EXPECT_EQ(found(stts, 0, 4), "nominal 1024, 5952 more: 102400+3976 at 100 sync 209800+1976 at 201");
  EXPECT_EQ(found(stts, 3000, 4), "nominal 1024, 3976 more: 102400+3976 at 100 sync");
}

}  // namespace
}  // namespace tarn::test
