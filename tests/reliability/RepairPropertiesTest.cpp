#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <set>
#include <sstream>

#include "app/Commands.h"
#include "app/TarnProcess.h"
#include "app/inspect/Inspection.h"
#include "platform/host/PosixFileManager.h"
#include "reliability/ProbedMovie.h"
#include "reliability/RandomMovie.h"
#include "support/FlashBeep.h"
#include "support/LogCapture.h"
#include "support/MediaMaker.h"
#include "support/PCM.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

/// What a repair changes in the boxes beside edit lists, durations, sample entries and chunk offsets.
struct Changes {
  bool splitsEntries = false;  ///< which makes the tables of chunks anew
  bool replacesSound = false;  ///< which numbers the tracks anew
};

/// Everything else is the same, in the same order.
void expectBoxesKept(BoxTree source, BoxTree result, const Changes& changes) {
  SCOPED_TRACE(source.type);
  if (source.type == "stsd") {
    const auto unknown = [](const BoxTree& entry) {
      Bytes found;
      for (const BoxTree& child : entry.children) found = child.type[0] == 'z' ? joined({found, child.bytes()}) : found;
      return found;
    };
    for (const BoxTree& entry : result.children) EXPECT_EQ(unknown(entry), unknown(source.children.front()));
    EXPECT_TRUE(source.children.front().type != "mp4a" || source.bytes() == result.bytes());
    return;
  }
  for (BoxTree* tree : {&source, &result}) {
    std::erase_if(tree->children, [](const BoxTree& child) { return child.type == "edts"; });
    if (tree->type == "tkhd") writeUInt32(tree->fields, 0, 20);  // durations
    if (tree->type == "mvhd") writeUInt32(tree->fields, 0, 16);
    if (tree->type == "mvhd" && changes.replacesSound) writeUInt32(tree->fields, 0, tree->fields.size() - 4);
    if (tree->type == "co64" && changes.splitsEntries) tree->type = "stco";
    if (tree->type == "stco" || tree->type == "co64" || (tree->type == "stsc" && changes.splitsEntries)) {
      tree->fields.clear();
    }
  }
  EXPECT_EQ(source.type, result.type);
  EXPECT_EQ(source.fields, result.fields);
  ASSERT_EQ(source.children.size(), result.children.size());
  for (size_t i = 0; i < source.children.size(); ++i) {
    expectBoxesKept(source.children[i], result.children[i], changes);
  }
}

std::string described(const std::vector<SampleEntryFacts>& entries) {
  std::string words;
  for (const auto& entry : entries) {
    words += fmt::format("{} {}x{} {}", entry.tag, entry.picture.width, entry.picture.height,
                         entry.configuration && entry.configuration->isComplete ? "complete" : "incomplete");
    for (const auto& range : entry.ranges) words += fmt::format(", {} to {}", range.first, range.last);
    words += "\n";
  }
  return words;
}

class RepairProperties : public testing::Test {
 protected:
  Inspection inspected(const Path& file) {
    const LogCapture quiet;
    return inspect(files_, file);
  }

  /// By the library, or by the program itself.
  int repair(const Path& from, const Path& to, bool byProgram = false) {
    if (byProgram) return runTarn(place_ / "home", {"repair", from.string(), "-o", to.string()}).exitCode;
    testing::internal::CaptureStdout();
    const int code = repairCommand({.home = std::nullopt, .json = true}, {.input = from, .output = to});
    testing::internal::GetCapturedStdout();
    return code;
  }

  ProbedMovie repaired(const Path& from, const char* name, bool byProgram = false) {
    EXPECT_EQ(repair(from, place_ / name, byProgram), 0);
    return ProbedMovie(place_ / name);
  }

  void expectPromisesKept(const Inspection& promise, ProbedMovie& source, ProbedMovie& result) {
    EXPECT_EQ(promise.changesFile, source.bytes != result.bytes);
    const Inspection outcome = inspected(result.file);
    if (promise.remux.kind != RemuxForecast::Kind::skipped) {
      EXPECT_EQ(described(promise.remux.entries), described(outcome.video->entries));
    }
    if (promise.audio.replacesSound() || source.media.count("audio") == 0) return;
    const auto expectList = [&](const char* handler, const std::optional<PlannedEditList>& list) {
      if (promise.syncFix.kind != SyncForecast::Kind::writes || !list) {
        EXPECT_EQ(result.edts(handler), source.edts(handler));
        return;
      }
      std::vector<std::pair<uint32_t, uint32_t>> rows;
      for (const auto& row : list->rows) rows.emplace_back(uint32_t(row.duration), uint32_t(row.mediaTime));
      EXPECT_EQ(result.rows(handler), rows);
    };
    expectList("vide", promise.syncFix.plan->video);
    expectList("soun", promise.syncFix.plan->audio);
  }

  void expectSoundKept(const Inspection& promise, ProbedMovie& source, ProbedMovie& result) {
    const auto &before = source.media["audio"], &after = result.media["audio"];
    if (!promise.audio.replacesSound()) {
      EXPECT_TRUE(std::ranges::equal(before, after, &Packet::isSame));
    } else if (promise.audio.kind == AudioForecast::Kind::takesFastPath) {
      ASSERT_TRUE(std::ranges::equal(before, after, {}, &Packet::hash, &Packet::hash));
      for (size_t i = 0; i < after.size(); ++i) ASSERT_EQ(after[i].pts, int64_t(i) * 1024);
      const auto start = source.start("soun");
      for (const HoleFacts& hole : promise.audio.holes) {
        const auto behind = std::ranges::find_if(before, [&](const Packet& packet) {
          return packet.seconds + start.empty - start.skipped > hole.atSeconds + 0.001;
        });
        const double moved = behind->seconds - before.front().seconds - after[size_t(behind - before.begin())].seconds;
        EXPECT_NEAR(moved * 1000, hole.shiftMilliseconds, 0.1);
      }
    } else {
      for (size_t i = 0; i < after.size(); ++i) ASSERT_EQ(after[i].pts, int64_t(i) * 1024);
      expectBeepsKept(source, result);
    }
  }

  /// Each beep of the source is heard in time with the packets that it came in, up to where the sound may end: with its
  /// edit list, or with the pictures.
  void expectBeepsKept(ProbedMovie& source, ProbedMovie& result) {
    const auto &packets = source.media["audio"], &pictures = source.media["video"];
    const double rate = source.timescale("soun");
    const auto start = source.start("soun");
    const double delay = start.firstEmpty.value_or(0);
    const double end =
        start.played > 0 ? start.played : pictures.back().seconds - pictures.front().seconds - start.empty;
    const auto heard = onsets(heardSamples(result.file), 1, 6000, 0.3);
    for (double beep = beepEvery_; beep < 1.9; beep += beepEvery_) {
      const double sample = beep * rate + 1024;  // behind the encoder's priming
      const auto i = static_cast<size_t>(sample / 1024);
      const double time = packets[i].seconds - packets[0].seconds + (sample - double(i) * 1024) / rate;
      const int64_t behind = packets[i + 3].pts - packets[i].pts, ahead = packets[i].pts - packets[i - 3].pts;
      const bool isBesideHole = std::abs(behind - ahead) > 100;
      if (isBesideHole || time > end - 0.05 || packets[i].pts < int64_t(i) * 1024) continue;
      // The silence between packets that drift apart is put in for several of them at once.
      const double tolerance = behind == 3 * 1024 ? 0.003 : 1024 / rate;
      EXPECT_TRUE(std::ranges::any_of(heard, [&](double at) { return std::abs(at - time - delay) < tolerance; }))
          << time + delay << testing::PrintToString(heard);
    }
  }

  /// Where the tracks start against each other, as ffprobe sees it.
  void expectOffsetKept(const Inspection& promise, ProbedMovie& source, ProbedMovie& result) {
    const auto& sync = promise.sync.value();
    const double tick = 1.0 / source.movieTimescale();
    const double tolerance = 2 * tick + 0.001;
    EXPECT_NEAR(sync.syncOffsetSeconds, source.offset(), tolerance);
    const bool isKept = std::abs(sync.syncOffsetMovieTime) > int64_t(source.movieTimescale() * 0.05);
    const auto sound = source.start("soun");
    double offset = sound.firstEmpty ? *sound.firstEmpty : isKept ? source.offset() : 0;
    double skipped = sound.skipped;
    if (promise.audio.replacesSound()) {
      offset = sound.firstEmpty.value_or(0);
      skipped = 0;
    }
    const bool isVideoOwn = result.edts("vide") == source.edts("vide");
    const bool isAudioOwn = !promise.audio.replacesSound() && result.edts("soun") == source.edts("soun");
    const double picture = isVideoOwn ? source.firstPicture() : std::max(0.0, -offset);
    const double audio = isAudioOwn ? sound.empty - sound.skipped : std::max(0.0, offset) - skipped;
    EXPECT_NEAR(result.shownOffset(), audio - picture, tolerance);
  }

  /// What the decoders say. Sound that jumps back, and is left to do so, is told by its times alone.
  static std::string complaintsOf(ProbedMovie& movie) {
    const auto& sound = movie.media["audio"];
    const bool jumpsBack = std::ranges::adjacent_find(sound, std::greater(), &Packet::pts) != sound.end();
    std::istringstream lines(decoderComplaints(movie.file));
    std::string complaints;
    for (std::string line; std::getline(lines, line);) {
      const bool isOfTimes = line.find("non monotonically increasing dts to muxer in stream") != std::string::npos;
      if (!jumpsBack || !isOfTimes) complaints += line + "\n";
    }
    return complaints;
  }

  /// The repair of a movie, and of what comes of it.
  void check(const Path& file, const Path& readable, bool isHealthy = false, bool byProgram = false) {
    const Inspection promise = inspected(file);
    SCOPED_TRACE(inspectionText(promise));
    metRemuxes_.insert(promise.remux.kind);
    metSounds_.insert(promise.audio.kind);
    if (promise.remux.kind == RemuxForecast::Kind::refuses) {
      EXPECT_FALSE(isHealthy);
      EXPECT_EQ(repair(file, place_ / "out.mp4", byProgram), 1);
      return;
    }
    ProbedMovie source(file, readable), result = repaired(file, "out.mp4", byProgram);
    EXPECT_EQ(complaintsOf(result), "");
    EXPECT_TRUE(std::ranges::equal(source.media["video"], result.media["video"], &Packet::isSame));
    const Changes changes = {promise.remux.kind == RemuxForecast::Kind::splits, promise.audio.replacesSound()};
    if (changes.replacesSound) {
      expectBoxesKept(source.moov.at("mvhd"), result.moov.at("mvhd"), changes);
      expectBoxesKept(*source.moov.track("vide"), *result.moov.track("vide"), changes);
    } else {
      expectBoxesKept(source.moov, result.moov, changes);
      expectTopLevelKept(source, result);
    }
    expectPromisesKept(promise, source, result);
    if (source.media.count("audio") > 0) {
      expectSoundKept(promise, source, result);
      expectOffsetKept(promise, source, result);
    }
    if (isHealthy) {
      for (const char* kind : {"video", "audio"}) {
        EXPECT_TRUE(std::ranges::equal(source.shown[kind], result.shown[kind], &Packet::isSame)) << kind;
      }
    }
    checkSecondRepair(promise, source, result);
  }

  static void expectTopLevelKept(const ProbedMovie& source, const ProbedMovie& result) {
    const auto before = topLevel(source.bytes), after = topLevel(result.bytes);
    ASSERT_EQ(before.size(), after.size());
    for (size_t i = 0; i < before.size(); ++i) {
      EXPECT_EQ(before[i].first, after[i].first);
      EXPECT_TRUE(before[i].first == "moov" || std::ranges::equal(before[i].second, after[i].second))
          << before[i].first;
    }
  }

  /// It changes nothing. But sound in mono is encoded anew; sound that is early by more than the tolerance and skips
  /// samples gets earlier by the skip; a new edit list, of another length than the old one, may show a drift; and
  /// behind a repair that replaced the sound, the second one sees to an edit list that the pictures have kept, and to
  /// the movie's duration, and a third one changes nothing.
  void checkSecondRepair(const Inspection& first, ProbedMovie& source, ProbedMovie& result) {
    ProbedMovie again = repaired(result.file, "again.mp4");
    const Inspection second = inspected(result.file);
    const bool isEarly = second.sync && second.sync->syncOffsetSeconds < -0.05 && second.sync->audioMediaTime > 0 &&
                         second.sync->audioMediaStartMovieTime == 0;
    const bool isMono = second.audio.findings && second.audio.findings->config.channelCount == 1;
    if (again.bytes == result.bytes) {
      EXPECT_FALSE(isMono);
      // A skip of hardly a tick is lost in the rounding.
      EXPECT_TRUE(!isEarly || result.start("soun").skipped < 1.5 / result.movieTimescale());
      return;
    }
    EXPECT_TRUE(std::ranges::equal(again.media["video"], result.media["video"], &Packet::isSame));
    if (isMono) {
      EXPECT_TRUE(std::ranges::equal(again.media["audio"], result.media["audio"], {}, &Packet::pts, &Packet::pts));
      return;
    }
    if (!first.audio.replacesSound() && second.audio.replacesSound()) {
      EXPECT_EQ(std::pair(first.audio.hasDrift(), second.audio.hasDrift()), std::pair(false, true));
      EXPECT_NE(result.edts("soun"), source.edts("soun"));
      return;
    }
    EXPECT_TRUE(std::ranges::equal(again.media["audio"], result.media["audio"], &Packet::isSame));
    if (isEarly) {
      const double tolerance = 2.0 / result.movieTimescale() + 0.001;
      EXPECT_NEAR(again.shownOffset(), result.shownOffset() - result.start("soun").skipped, tolerance);
      return;
    }
    EXPECT_TRUE(first.audio.replacesSound()) << inspectionText(second);
    expectBoxesKept(result.moov, again.moov, {});
    expectTopLevelKept(result, again);
    if (result.edts("vide") != source.edts("vide")) {
      EXPECT_EQ(std::pair(result.edts("vide"), result.edts("soun")), std::pair(again.edts("vide"), again.edts("soun")));
    }
    EXPECT_TRUE(repaired(again.file, "third.mp4").bytes == again.bytes);
  }

  double beepEvery_ = 0.5;  ///< seconds
  std::multiset<RemuxForecast::Kind> metRemuxes_;
  std::multiset<AudioForecast::Kind> metSounds_;
  TempDirectory place_;
  PosixFileManager files_{place_.path()};
};

uint64_t numberFromEnvironment(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  return text ? std::strtoull(text, nullptr, 10) : fallback;
}

TEST_F(RepairProperties, HoldForRandomMovies) {
  const uint64_t seed = numberFromEnvironment("TARN_PROPERTY_SEED", 1);
  const uint64_t count = numberFromEnvironment("TARN_PROPERTY_COUNT", 24);
  for (uint64_t i = 0; i < count; ++i) {
    const RandomMovie movie = randomMovie(seed + i);
    SCOPED_TRACE(fmt::format("TARN_PROPERTY_SEED={}: {}", seed + i, movie.story));
    writeFileAtomically(files_, place_ / "clip.mp4", movie.bytes);
    writeFileAtomically(files_, place_ / "readable.mp4", movie.readable);
    check(place_ / "clip.mp4", place_ / "readable.mp4", movie.isHealthy, i % 6 == 0);
    EXPECT_EQ(contentOf(place_ / "clip.mp4"), textOf(movie.bytes));
  }
  if (count < 24) return;
  using Remux = RemuxForecast::Kind;
  for (Remux kind : {Remux::leavesAlone, Remux::changesTag, Remux::rebuilds, Remux::splits, Remux::refuses}) {
    EXPECT_GT(metRemuxes_.count(kind), 0u) << "a kind of repair was never met: " << int(kind);
  }
  using Sound = AudioForecast::Kind;
  for (Sound kind :
       {Sound::noSound, Sound::leavesAlone, Sound::leavesToEditList, Sound::takesFastPath, Sound::transcodes}) {
    EXPECT_GT(metSounds_.count(kind), 0u) << "what is done about sound was never met: " << int(kind);
  }
}

TEST_F(RepairProperties, ASecondRepairChangesMonoAndEarlySoundAlone) {
  beepEvery_ = 1;
  for (const Path& clip : {damagedFlashBeepClip(3, 1, {}), damagedFlashBeepClip(3, 2, {}, -0.3)}) {
    SCOPED_TRACE(clip);
    check(clip, clip);
    EXPECT_NE(contentOf(place_ / "again.mp4"), contentOf(place_ / "out.mp4"));
  }
}

}  // namespace
}  // namespace tarn::test
