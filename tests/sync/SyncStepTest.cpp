#include "support/BoxEditor.h"
#include "support/FileTest.h"
#include "support/FlashBeep.h"
#include "support/ProbedMovie.h"
#include "support/RunRecorder.h"
#include "sync/SyncStep.h"

namespace tarn::test {
namespace {

constexpr uint32_t emptyTime = 0xFFFFFFFF, normal = 0x10000;

/// An `edts` with these entries of duration, media time and rate.
Bytes editBox(std::initializer_list<uint32_t> entries) {
  Bytes fields = values({0, static_cast<uint32_t>(entries.size() / 3)});
  return box("edts", {box("elst", {fields, values(entries)})});
}

/// A movie of the flash and the beep with other edit lists in it: `lists` for its tracks in order; nothing keeps the
/// track's own, an empty one removes it.
using Lists = std::vector<std::optional<Bytes>>;
Bytes withLists(const Bytes& clip, const Lists& lists, bool isMoovAhead = true) {
  MovieLayout layout(clip);
  BoxTree moov(layout.moov);
  size_t track = 0;
  for (BoxTree& trak : moov.children) {
    if (trak.type != "trak" || track == lists.size()) continue;
    const auto& list = lists[track++];
    if (!list) continue;
    if (const auto old = trak.child("edts"); old != trak.children.end()) trak.children.erase(old);
    if (!list->empty()) trak.children.emplace(trak.child("mdia"), *list);
  }
  layout.moov = moov.bytes();
  using Kind = MovieLayout::Piece::Kind;
  if (isMoovAhead) return layout.moovAhead();
  return layout.build({{.kind = Kind::raw, .bytes = layout.ftyp}, {.kind = Kind::mdat}, {.kind = Kind::moov}});
}

Bytes withFirstPictureAtMinusOne(const Bytes& clip) {
  BoxEditor editor(clip);
  editor.setField(editor.at("moov/trak/mdia/minf/stbl/ctts").offset + 20, 0xFFFFFFFF);
  return editor.bytes;
}

class SyncSteps : public FileTest {
 protected:
  /// The flash and the beep, the beep late.
  Bytes clip(const std::vector<std::string>& muxer = {}, const std::string& tracks = "-map 0:v -map 1:a",
             double late = 0.3) {
    return readFile(files_, flashBeepClip(late, muxer, tracks));
  }

  /// The file after the step.
  Bytes fixed(const Bytes& movie) {
    write(movie);
    run();
    return written();
  }

  void run() {
    ProcessingRun run = recorder_.runOn(files_, file_);
    SyncStep().run(run);
    EXPECT_EQ(recorder_.stages, "syncFixing syncFixed ");
    warnings_ = run.outcome.leftAlone.size();
  }

  bool isFailureLogged() {
    return std::ranges::any_of(
        log_.lines(), [](const std::string& line) { return line.starts_with("A/V sync fix error (non-critical): "); });
  }

  /// The movie as ffprobe shows it.
  ProbedMovie probed(const char* name, const Bytes& movie) {
    writeFileAtomically(files_, directory_ / name, movie);
    return ProbedMovie(directory_ / name);
  }

  /// The same packets at the same times, to a tick of the movie, and the same ones hidden.
  static void expectSameShown(const ProbedMovie& truth, const ProbedMovie& movie, double tick) {
    for (const char* kind : {"video", "audio"}) {
      const auto expected = truth.shown.find(kind), met = movie.shown.find(kind);
      ASSERT_EQ(expected == truth.shown.end(), met == movie.shown.end()) << kind;
      if (met == movie.shown.end()) continue;
      ASSERT_EQ(met->second.size(), expected->second.size()) << kind;
      for (size_t i = 0; i < met->second.size(); ++i) {
        EXPECT_NEAR(met->second[i].seconds, expected->second[i].seconds, tick) << kind << " " << i;
        ASSERT_EQ(met->second[i].flags, expected->second[i].flags) << kind << " " << i;
        ASSERT_EQ(met->second[i].hash, expected->second[i].hash) << kind << " " << i;
      }
    }
  }

  RunRecorder recorder_;
  size_t warnings_ = 0;  ///< of the last run
};

// A first composition time of -1, a skip, a pause, more entries than anybody counts on: all that says where a track is
// shown stays, and the file with it.
TEST_F(SyncSteps, LeaveAFileAloneWhoseListsSayTheTruth) {
  const std::string both = "-map 0:v -map 1:a";
  const Bytes plain = clip({}, both, 0), noLists = clip({"-use_editlist", "0", "-movflags", "negative_cts_offsets"});
  Bytes entries = values({0, 20});
  for (uint32_t i = 0; i < 20; ++i) entries = joined({entries, values({100, 1024 + i * 1280, normal})});
  const std::pair<const char*, Bytes> movies[] = {
      {"negative offsets", clip({"-movflags", "negative_cts_offsets"}, both, -0.3)},
      {"no lists, first picture at -1", withFirstPictureAtMinusOne(noLists)},
      {"20 entries", withLists(plain, {box("edts", {box("elst", {entries})})})},
      {"half speed, a still", withLists(plain, {editBox({2000, 1024, 0x8000, 500, 1024, 0}), Bytes()})},
      {"to the end", withLists(plain, {editBox({0, 1024, normal}), editBox({300, emptyTime, normal, 0, 0, normal})})},
      {"an entry after the media", withLists(plain, {editBox({3000, 1024, normal, 500, 0x7FFFFFF0, normal})})},
      {"sound alone, damaged", withLists(clip({}, "-map 1:a"), {editBox({500, emptyTime, normal})})},
  };
  for (const auto& [kind, movie] : movies) {
    EXPECT_EQ(fixed(movie), movie) << kind;
    EXPECT_TRUE(log_.contains("A/V sync already correct, no fix needed")) << kind;
    EXPECT_EQ(warnings_, 0u) << kind;
    log_.clear();
  }
}

// What is damaged counts as absent: the truth is the movie without that list.
TEST_F(SyncSteps, PutWhatIsDamagedInPlaceAndKeepTheOtherLists) {
  const Bytes nothing = editBox({500, emptyTime, normal}), below = editBox({3000, 0xFFFFFFFE, normal}),
              behind = editBox({1000, 0x7FFFFFF0, normal}), none;
  const Bytes healthy = editBox({300, emptyTime, normal, 1200, 1024, normal});
  const Bytes plain = clip(), fine = clip({"-movie_timescale", "90000"}), coarse = clip({"-movie_timescale", "1"});
  const Bytes soundFirst = clip({}, "-map 1:a -map 0:v"), twoSounds = clip({}, "-map 0:v -map 1:a -map 1:a"),
              negative = withFirstPictureAtMinusOne(plain);
  struct {
    const char* kind;
    const Bytes& clip;
    Lists lists;
    std::vector<size_t> entries;  ///< of the lists behind the step
    bool isMoovAhead = true;
  } rows[] = {
      {"video behind", fine, {behind}, {2, 2}},
      {"second sound", twoSounds, {std::nullopt, healthy, below}, {1, 2, 1}},
      {"both", soundFirst, {behind, nothing}, {1, 2}},
      {"too coarse for a list", coarse, {below, none}, {0, 0}},
      {"negative times", negative, {below, healthy}, {0, 2}},
      {"no list", plain, {none, healthy}, {2, 2}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.kind);
    Lists truth = row.lists;
    for (auto& list : truth) {
      if (list == nothing || list == below || list == behind) list = none;
    }
    ProbedMovie expected = probed("truth.mp4", withLists(row.clip, truth, row.isMoovAhead));
    const Bytes source = withLists(row.clip, row.lists, row.isMoovAhead);
    ProbedMovie result = probed("result.mp4", fixed(source));
    EXPECT_TRUE(log_.contains("A/V sync fix applied successfully"));
    EXPECT_EQ(warnings_, 0u);
    const double tick = 1.0 / result.movieTimescale();
    expectSameShown(expected, result, std::min(tick, 0.001) + 1e-6);
    size_t track = 0;
    for (BoxTree& trak : result.moov.children) {
      if (trak.type != "trak") continue;
      const auto list = trak.child("edts");
      const uint32_t count = list == trak.children.end() ? 0 : readUInt32(list->bytes(), 20).value();
      EXPECT_EQ(count, row.entries[track]) << "track " << track;
      if (track < row.lists.size() && row.lists[track] == healthy) {
        EXPECT_EQ(list->bytes(), healthy);
      }
      ++track;
    }
    log_.clear();
    EXPECT_EQ(fixed(result.bytes), result.bytes) << "a second fix";
    EXPECT_TRUE(log_.contains("A/V sync already correct, no fix needed"));
    log_.clear();
  }
}

TEST_F(SyncSteps, SwallowFailuresButNotACancellation) {
  run();
  EXPECT_TRUE(isFailureLogged());
  BoxEditor unreadable(withLists(clip(), {editBox({500, emptyTime, normal})}));
  unreadable.rename("moov/trak/mdia/minf/stbl/stts", "skip");
  log_.clear();
  EXPECT_EQ(fixed(unreadable.bytes), unreadable.bytes) << "what cannot be read is not fixed blindly";
  EXPECT_TRUE(isFailureLogged());

  write(withLists(clip(), {editBox({500, emptyTime, normal})}));
  const Bytes damaged = written();
  recorder_.onSave = [&](const auto&) { recorder_.token->cancel(); };
  ProcessingRun cancelled = recorder_.runOn(files_, file_);
  EXPECT_THROW(SyncStep().run(cancelled), CancellationError);
  EXPECT_EQ(recorder_.stages, "syncFixing ");
  EXPECT_TRUE(log_.contains("A/V sync fix error (non-critical): Operation was cancelled"));
  EXPECT_EQ(written(), damaged);
}

TEST_F(SyncSteps, LeaveFragmentsAloneAndSaySo) {
  for (const char* flags : {"frag_keyframe+empty_moov", "frag_keyframe"}) {
    BoxEditor movie(readFile(files_, flashBeepClip(0.3, {"-movflags", flags})));
    if (movie.all("moov/trak/edts").empty()) {
      movie.insert("moov/trak", movie.at("moov/trak/mdia").offset, editBox({500, emptyTime, normal}));
    }
    EXPECT_EQ(fixed(movie.bytes), movie.bytes);
    EXPECT_EQ(warnings_, 1u) << flags;
  }
}

}  // namespace
}  // namespace tarn::test
