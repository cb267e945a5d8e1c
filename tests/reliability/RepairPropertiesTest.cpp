#include <fmt/format.h>
#include <gtest/gtest.h>
#include <tarn/repair.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <set>
#include <sstream>

#include "inspect/InspectionText.h"
#include "platform/host/PosixFileManager.h"
#include "reliability/RandomMovie.h"
#include "support/FlashBeep.h"
#include "support/LogCapture.h"
#include "support/MediaMaker.h"
#include "support/PCM.h"
#include "support/ProbedMovie.h"
#include "support/TarnProcess.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

/// What a repair changes in the boxes beside edit lists, durations, sample entries and chunk offsets.
struct Changes {
  bool splitsEntries = false;  ///< which makes the tables of chunks anew
  bool replacesSound = false;  ///< which has another clock and other tables then, and media of its own
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
    if (tree->type == "mdia" && changes.replacesSound &&
        textOf(ByteView(tree->at("hdlr").fields).subspan(8, 4)) == "soun") {
      std::erase_if(tree->children, [](const BoxTree& child) { return child.type == "minf" || child.type == "mdhd"; });
    }
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
    const RepairReport report = repairFile(from, to);
    return !report.isThere() ? 1 : report.isPartly ? 5 : 0;
  }

  /// A movie and what it shows: itself before its damage.
  struct Source {
    Source(const Path& file, const Path& truthFile) : movie(file, truthFile), truth(truthFile) {}
    ProbedMovie movie;
    ProbedMovie truth;
  };

  void expectPromisesKept(const Inspection& promise, Source& source, ProbedMovie& result) {
    EXPECT_EQ(promise.changesFile, source.movie.bytes != result.bytes);
    const Inspection outcome = inspected(result.file);
    if (promise.remux.kind != RemuxForecast::Kind::skipped) {
      EXPECT_EQ(described(promise.remux.entries), described(outcome.video->entries));
    }
    for (const char* handler : {"vide", "soun"}) {
      BoxTree* track = source.movie.moov.track(handler);
      if (!track || (std::string(handler) == "soun" && promise.audio.replacesSound())) continue;
      const auto promised = std::ranges::find(promise.syncFix.order.tracks, readUInt32(track->at("tkhd").fields, 12),
                                              &SyncFixOrder::Track::trackID);
      if (promised == promise.syncFix.order.tracks.end()) {
        EXPECT_EQ(result.edts(handler), source.truth.edts(handler));
        continue;
      }
      std::vector<std::pair<uint32_t, uint32_t>> rows;
      for (const auto& row : promised->list.entries) rows.emplace_back(uint32_t(row.duration), uint32_t(row.mediaTime));
      EXPECT_EQ(result.rows(handler), rows);
    }
  }

  /// The same packets at the same times, the same ones hidden; to a millisecond where a list was written.
  static void expectShownKept(Source& source, ProbedMovie& result, const char* kind, const char* handler) {
    const auto &before = source.truth.shown[kind], &after = result.shown[kind];
    const double tolerance = result.edts(handler) == source.truth.edts(handler) ? 1e-9 : 0.00101;
    ASSERT_EQ(before.size(), after.size()) << kind;
    for (size_t i = 0; i < after.size(); ++i) {
      ASSERT_NEAR(before[i].seconds, after[i].seconds, tolerance) << kind << " " << i;
      ASSERT_EQ(before[i].flags, after[i].flags) << kind << " " << i;
      ASSERT_EQ(before[i].hash, after[i].hash) << kind << " " << i;
    }
  }

  /// When each beep of a movie is heard, by its packets' times and its edit list.
  std::vector<double> beepsOf(ProbedMovie& movie) {
    const auto& packets = movie.media["audio"];
    const double rate = movie.timescale("soun");
    auto rows = movie.rows("soun");
    if (rows.empty()) rows.emplace_back(0, 0);
    std::vector<double> beeps;
    for (double beep = beepEvery_; beep < 1.9; beep += beepEvery_) {
      const double sample = beep * rate + 1024;  // behind the encoder's priming
      const auto i = static_cast<size_t>(sample / 1024);
      const int64_t behind = packets[i + 3].pts - packets[i].pts, ahead = packets[i].pts - packets[i - 3].pts;
      const bool isBesideGap = std::abs(behind - ahead) > 100;
      if (isBesideGap || packets[i].pts < int64_t(i) * 1024) continue;
      const double media = packets[i].seconds - packets[0].seconds + (sample - double(i) * 1024) / rate;
      double start = 0;
      for (const auto& [duration, mediaTime] : rows) {
        const double length = duration == 0 ? 1e9 : double(duration) / movie.movieTimescale();
        const double into = media - mediaTime / rate;
        if (mediaTime != 0xFFFFFFFF && into > 0.002 && into < length - 0.05) beeps.push_back(start + into);
        start += length;
      }
    }
    return beeps;
  }

  void expectBeepsKept(Source& source, ProbedMovie& result, double tolerance) {
    const auto heard = onsets(heardSamples(result.file), 1, 6000, 0.3);
    for (const double beep : beepsOf(source.truth)) {
      EXPECT_TRUE(std::ranges::any_of(heard, [&](double at) { return std::abs(at - beep) < tolerance; }))
          << beep << testing::PrintToString(heard);
    }
  }

  void expectSoundKept(const Inspection& promise, Source& source, ProbedMovie& result) {
    const auto &before = source.truth.media["audio"], &after = result.media["audio"];
    const double tick = 1.0 / result.movieTimescale();
    if (!promise.audio.replacesSound()) {
      EXPECT_TRUE(std::ranges::equal(before, after, &Packet::isSame));
      expectShownKept(source, result, "audio", "soun");
    } else {
      expectBeepsKept(source, result, std::max(tick, 0.003));
    }
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

  /// The repair of a movie, and of what comes of it, which changes nothing.
  void check(const RandomMovie& movie, bool byProgram) {
    const Path file = place_ / "clip.mp4";
    writeFileAtomically(files_, file, movie.bytes);
    writeFileAtomically(files_, place_ / "truth.mp4", movie.truth);
    const Inspection promise = inspected(file);
    SCOPED_TRACE(inspectionText(promise));
    metRemuxes_.insert(promise.remux.kind);
    metSounds_.insert(promise.audio.kind);
    metSyncs_.insert(promise.syncFix.kind);
    EXPECT_EQ(repair(file, place_ / "out.mp4", byProgram), 0);
    EXPECT_EQ(contentOf(file), textOf(movie.bytes));
    if (movie.lacksSets) {
      EXPECT_EQ(promise.remux.kind, RemuxForecast::Kind::leavesAlone);
      EXPECT_EQ(described(inspected(place_ / "out.mp4").video->entries), described(promise.video->entries));
      return;  // there is no program that reads it
    }
    Source source(file, place_ / "truth.mp4");
    ProbedMovie result(place_ / "out.mp4");
    // A list that begins between two key pictures makes ffmpeg complain of the source too.
    const std::string complaints = complaintsOf(result);
    EXPECT_TRUE(complaints.empty() || !complaintsOf(source.truth).empty()) << complaints;
    EXPECT_TRUE(std::ranges::equal(source.truth.media["video"], result.media["video"], &Packet::isSame));
    EXPECT_FALSE(movie.isHealthy && promise.audio.replacesSound());
    expectBoxesKept(source.movie.moov, result.moov,
                    {promise.remux.kind == RemuxForecast::Kind::splits, promise.audio.replacesSound()});
    expectTopLevelKept(source.movie, result, promise.audio.replacesSound());
    expectPromisesKept(promise, source, result);
    expectShownKept(source, result, "video", "vide");
    if (source.truth.media.count("audio") > 0) expectSoundKept(promise, source, result);
    EXPECT_EQ(repair(result.file, place_ / "again.mp4"), 0);
    EXPECT_TRUE(contentOf(place_ / "again.mp4") == textOf(result.bytes)) << "a second repair changes nothing";
  }

  /// The repair of what is left of a movie: the first pictures and packets of it, or none. Returns true if there is a
  /// result.
  bool checkCut(const RandomMovie& movie, double part) {
    const Path file = place_ / "clip.mp4", out = place_ / "out.mp4", truth = place_ / "truth.mp4";
    const auto size = static_cast<ptrdiff_t>(part * static_cast<double>(movie.bytes.size()));
    writeFileAtomically(files_, file, Bytes(movie.bytes.begin(), movie.bytes.begin() + size));
    writeFileAtomically(files_, truth, movie.truth);
    std::filesystem::remove(out);
    const Inspection promise = inspected(file);
    SCOPED_TRACE(inspectionText(promise));
    using Kind = FragmentsForecast::Kind;
    const bool isRefused = promise.refusal || !promise.hasMovie || promise.fragments.kind == Kind::refuses;
    const int code = repair(file, out);
    EXPECT_EQ(code, isRefused ? 1 : promise.fragments.kind == Kind::keepsPart ? 5 : 0);
    EXPECT_EQ(files_.fileExists(out), code != 1);
    if (code != 5 || movie.lacksSets) return false;
    ProbedMovie whole(truth), result(out);
    for (const char* kind : {"video", "audio"}) {
      if (kind == std::string("audio") && promise.audio.replacesSound()) continue;
      const auto &before = whole.media[kind], &after = result.media[kind];
      EXPECT_LE(after.size(), before.size());
      EXPECT_TRUE(std::ranges::mismatch(after, before, &Packet::isSame).in1 == after.end()) << kind;
    }
    const std::string complaints = complaintsOf(result);
    EXPECT_TRUE(complaints.empty() || !complaintsOf(whole).empty()) << complaints;
    EXPECT_EQ(repair(out, place_ / "again.mp4"), 0);
    EXPECT_TRUE(contentOf(place_ / "again.mp4") == textOf(result.bytes)) << "a second repair changes nothing";
    return true;
  }

  /// All boxes in their order, but for the `moov`; new sound comes with media of its own.
  static void expectTopLevelKept(const ProbedMovie& source, const ProbedMovie& result, bool hasNewMedia) {
    const auto before = topLevel(source.bytes), after = topLevel(result.bytes);
    EXPECT_TRUE(hasNewMedia ? before.size() < after.size() : before.size() == after.size());
    auto place = after.begin();
    for (const auto& [type, box] : before) {
      place = std::find_if(place, after.end(), [&, type = type, box = box](const auto& other) {
        return other.first == type && (type == "moov" || std::ranges::equal(other.second, box));
      });
      ASSERT_NE(place, after.end()) << type;
      ++place;
    }
  }

  double beepEvery_ = 0.5;  ///< seconds
  std::multiset<RemuxForecast::Kind> metRemuxes_;
  std::multiset<AudioForecast::Kind> metSounds_;
  std::multiset<SyncForecast::Kind> metSyncs_;
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
    try {
      check(movie, i % 6 == 0);
    } catch (const std::exception& unreadable) {
      ADD_FAILURE() << unreadable.what();
    }
  }
  if (count < 24) return;
  using Remux = RemuxForecast::Kind;
  for (Remux kind : {Remux::leavesAlone, Remux::changesTag, Remux::rebuilds, Remux::splits}) {
    EXPECT_GT(metRemuxes_.count(kind), 0u) << "a kind of repair was never met: " << int(kind);
  }
  using Sound = AudioForecast::Kind;
  // The fast path takes only damage that is light over many minutes, which these movies do not last.
  for (Sound kind : {Sound::noSound, Sound::leavesAlone, Sound::leavesToEditList, Sound::transcodes}) {
    EXPECT_GT(metSounds_.count(kind), 0u) << "what is done about sound was never met: " << int(kind);
  }
  for (SyncForecast::Kind kind : {SyncForecast::Kind::nothing, SyncForecast::Kind::writes}) {
    EXPECT_GT(metSyncs_.count(kind), 0u) << "what is done about edit lists was never met: " << int(kind);
  }
}

TEST_F(RepairProperties, HoldForWhatIsLeftOfRandomMovies) {
  const uint64_t seed = numberFromEnvironment("TARN_PROPERTY_SEED", 1);
  const uint64_t count = numberFromEnvironment("TARN_PROPERTY_COUNT", 24);
  uint64_t results = 0;
  for (uint64_t i = 0; i < count; ++i) {
    const RandomMovie movie = randomMovie(seed + i);
    const double part = 0.3 + 0.1 * static_cast<double>(i % 7);
    SCOPED_TRACE(fmt::format("TARN_PROPERTY_SEED={}: {}, cut at {}", seed + i, movie.story, part));
    try {
      results += checkCut(movie, part) ? 1 : 0;
    } catch (const std::exception& unreadable) {
      ADD_FAILURE() << unreadable.what();
    }
  }
  EXPECT_TRUE(count < 24 || results > 4) << results;
}

}  // namespace
}  // namespace tarn::test
