#include <fmt/format.h>
#include <gtest/gtest.h>

#include <random>

#include "audio/MP4AudioTrackReplacer.h"
#include "audio/TrackBoxEdit.h"
#include "mp4/DataExtensions.h"
#include "platform/ForwardingFileManager.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/FailureOf.h"
#include "support/FlashBeep.h"
#include "support/LogCapture.h"
#include "support/MediaMaker.h"
#include "support/MovieLayout.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using Kind = MovieLayout::Piece::Kind;

constexpr uint64_t fourGiB = uint64_t{1} << 32;

class TrackReplacer : public testing::Test {
 protected:
  void replace(FileManager& files) { MP4AudioTrackReplacer::replaceAudioTrack(files, source_, newAudio_, output_); }
  std::string failure() {
    return failureOf([&] { replace(files_); });
  }

  /// The line of its hash, without the number.
  std::string newSound() { return mediaHashes(newAudio_).substr(1); }

  /// The output has the source's pictures and the new sound, and nothing that a player complains of.
  void expectWhole(const std::string& what) {
    const std::string own = mediaHashes(video_);
    EXPECT_EQ(mediaHashes(output_), own.substr(0, own.find('\n') + 1) + "1" + newSound()) << what;
    EXPECT_EQ(decoderComplaints(output_), "") << what;
  }

  static Bytes mvhd(uint32_t timescale) { return box("mvhd", {values({0, 0, 0, timescale, 0}), Bytes(80)}); }
  static Bytes track(const std::string& handler, uint32_t id, uint32_t duration,
                     std::initializer_list<Bytes> tables = {}) {
    BoxEditor editor(trackBox(handler, tables));
    editor.insert("trak", 8, fullBox("tkhd", {0, 0, id, 0, duration}));
    return editor.bytes;
  }
  /// A file whose media begin at offset 8 and end at 100.
  static Bytes movie(std::initializer_list<Bytes> boxes) {
    return joined({box("mdat", {Bytes(92)}), box("moov", boxes)});
  }

  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
  Path source_ = directory_ / "source.mp4";
  Path output_ = directory_ / "output.mp4";
  // ffmpeg gives the M4A an edit list, the video none; both inputs have sound.
  Path video_ =
      madeByFFmpeg(words("-f lavfi -i testsrc2=size=192x144:rate=25 -f lavfi -i sine=frequency=300 -t 4 "
                         "-c:v libx264 -bf 0 -c:a aac -use_editlist 0"));
  Path newAudio_ = madeByFFmpeg(words("-f lavfi -i sine=frequency=900 -t 4 -ar 44100 -ac 2 -c:a aac"), ".m4a");
  LogCapture log_;
};

TEST_F(TrackReplacer, KeepsPicturesAndSoundWhateverTheLayoutOfTheSource) {
  const MovieLayout plain(readFile(files_, video_));
  const auto chunks = plain.chunks();
  const uint64_t third = chunks[chunks.size() / 3], twoThirds = chunks[chunks.size() * 2 / 3];
  MovieLayout longOffsets = plain, hinted = plain;
  longOffsets.useLongOffsets();
  BoxEditor hint(plain.moov);
  hint.insert("moov", 8, trackBox("hint", {fullBox("stco", {1, 7})}));
  hinted.moov = hint.bytes;
  const MovieLayout::Piece ftyp{Kind::raw, plain.ftyp}, moov{Kind::moov}, mdat{Kind::mdat};
  const MovieLayout::Piece noise{Kind::raw, box("free", {Bytes(977)})}, lastThird{Kind::mdat, {}, twoThirds};
  const MovieLayout::Piece firstThird{Kind::mdat, {}, 0, third}, second{Kind::longMdat, {}, third, twoThirds};
  const struct {
    std::string name;
    const MovieLayout& layout;
    std::vector<MovieLayout::Piece> pieces;
  } rows[] = {
      {"moov ahead", plain, {ftyp, moov, mdat}},
      {"moov behind", plain, {ftyp, noise, mdat, moov}},
      {"media around the moov", plain, {ftyp, firstThird, noise, moov, second, noise, lastThird}},
      {"64-bit offsets and sizes", longOffsets, {ftyp, moov, {Kind::longMdat}}},
      {"mdat without an end", plain, {ftyp, moov, {Kind::openMdat}}},
      {"moov without an end", plain, {ftyp, mdat, {Kind::openMoov}}},
      {"no ftyp", plain, {moov, mdat}},
      {"ftyp without an end", plain, {moov, mdat, {Kind::raw, boxClaiming(0, "ftyp", {values({0x69736F6D, 0})})}}},
      {"hint track ahead", hinted, {ftyp, moov, mdat}},
      {"a tail that is no box", plain, {ftyp, moov, mdat, {Kind::raw, values({3, 3, 3})}}},
  };
  for (const auto& row : rows) {
    writeFileAtomically(files_, source_, row.layout.build(row.pieces));
    replace(files_);
    expectWhole(row.name);
    const auto probe =
        runProcess({"ffprobe", "-v", "error", "-show_entries", "stream=codec_type,id", "-of", "csv=p=0", output_});
    EXPECT_EQ(probe.output, "video,0x1\naudio,0x2\n") << row.name;
    const BoxEditor output(readFile(files_, output_));
    EXPECT_EQ(output.at("ftyp").offset, 0u) << row.name;
    EXPECT_EQ(output.at("moov").offset, output.at("ftyp").end()) << row.name;
    EXPECT_EQ(textOf(output.get("moov")).find("edts"), std::string::npos) << row.name;
    const bool hasDefault = output.get("ftyp") == box("ftyp", {values({0x6D703432, 0, 0x6D703432})});  // "mp42"
    EXPECT_EQ(hasDefault, row.name == "no ftyp") << row.name;
  }
  EXPECT_TRUE(log_.contains("  Stripping edts box from audio trak (36 bytes)"));
}

/// Copies of a box of gigabytes no more than 16 MiB at each end, and leaves a hole between them.
class HoleCopier : public ForwardingFileManager {
 public:
  using ForwardingFileManager::ForwardingFileManager;
  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    return std::make_unique<Handle>(ForwardingFileManager::open(path, mode));
  }

 private:
  struct Handle : ForwardingFileHandle {
    using ForwardingFileHandle::ForwardingFileHandle;
    uint64_t copyRange(FileHandle& target, uint64_t count) override {
      constexpr uint64_t end = 0x1000000;
      if (count <= 2 * end) return ForwardingFileHandle::copyRange(target, count);
      const uint64_t hole = count - 2 * end, copied = ForwardingFileHandle::copyRange(target, end);
      seek(offset() + hole);
      target.seek(target.offset() + hole);
      return copied + hole + ForwardingFileHandle::copyRange(target, end);
    }
  };
};

TEST_F(TrackReplacer, TurnsStcoIntoCo64WhereTheMediaPass4GiB) {
  // The last chunk begins at the last byte that an stco can name; a moov ahead of it moves it on.
  video_ = madeByFFmpeg(words("-f lavfi -i testsrc2=size=192x144:rate=25 -t 4 -c:v libx264 -bf 0"));
  const MovieLayout layout(readFile(files_, video_));
  BoxEditor moov(layout.moov);
  const auto stco = moov.at("moov/trak/mdia/minf/stbl/stco");
  const auto chunks = layout.chunks();
  const uint64_t mediaStart = fourGiB - 1 - chunks.back();
  for (size_t i = 0; i < chunks.size(); ++i) {
    moov.setField(stco.offset + 16 + 4 * i, static_cast<uint32_t>(mediaStart + chunks[i]));
  }
  const auto file = files_.open(source_, OpenMode::creating);
  file->write(joined({layout.ftyp, longBoxClaiming(mediaStart + layout.media.size() - layout.ftyp.size(), "mdat")}));
  file->seek(mediaStart);
  file->write(joined({layout.media, moov.bytes}));
  file->close();

  HoleCopier files(files_);
  replace(files);
  expectWhole("beyond 4 GiB");
  EXPECT_EQ(std::ranges::count(log_.lines(), "  Warning: stco offset would overflow 32-bit, upgrading to co64"), 4);
  EXPECT_TRUE(log_.contains(
      fmt::format("  Upgraded stco to co64: {} bytes -> {} bytes", stco.size, stco.size + 4 * chunks.size())));
}

TEST_F(TrackReplacer, NumbersTheNewTrackBehindTheVideoAndRescalesItsDuration) {
  newAudio_ = directory_ / "new.m4a";
  writeFileAtomically(files_, newAudio_, movie({mvhd(44100), track("soun", 1, 441000)}));
  for (uint32_t id : {0u, 5u, 0xFFFFFFFDu}) {
    writeFileAtomically(files_, source_, movie({mvhd(600), track("vide", id, 5000)}));
    replace(files_);
    const BoxEditor output(readFile(files_, output_));
    EXPECT_TRUE(log_.contains(fmt::format("  Updated audio track_ID: 1 -> {}", id + 1)));
    EXPECT_EQ(output.field(output.at("moov/mvhd").offset + 104), id + 2);
    EXPECT_EQ(output.field(output.at("moov/mvhd").offset + 24), 6000u);
  }
  EXPECT_TRUE(log_.contains("  Updated tkhd.duration: 441000 -> 6000"));
}

TEST_F(TrackReplacer, RefusesWhatItCannotExpress) {
  const Bytes goodTrack = track("vide", 1, 100), good = movie({mvhd(600), goodTrack});
  const Bytes goodAudio = movie({mvhd(600), track("soun", 1, 100)});
  using Fields = std::initializer_list<uint32_t>;
  const auto pictures = [](Fields stco) { return movie({mvhd(1), track("vide", 1, 1, {fullBox("stco", stco)})}); };
  const auto sound = [](Fields stts) { return movie({mvhd(1), track("soun", 1, 1, {fullBox("stts", stts)})}); };
  const auto withMdat = [&](const Bytes& mdat) { return joined({box("moov", {mvhd(1), goodTrack}), mdat}); };
  const struct {
    std::string failure;
    Bytes source;
    Bytes audio = {};  // or else a good one
  } rows[] = {
      {"moov box not found in file", box("mdat")},
      {"Corrupted MP4: No mdat box found", withMdat({})},
      {"Corrupted MP4: Cannot read audio moov", good, joined({box("mdat"), boxClaiming(999, "moov", {mvhd(1)})})},
      {"No video track found in original file", goodAudio},
      {"No video track found in original file", movie({mvhd(1), boxClaiming(0, "free"), goodTrack})},
      {"No audio track found in new audio file", good, good},
      {"Corrupted MP4: mvhd not found", movie({goodTrack})},
      {"Corrupted MP4: trak reaches over its moov", movie({mvhd(1), boxClaiming(900, "trak", {Bytes(20)})})},
      {"Corrupted MP4: Fragmented MP4 (moof box found)", joined({good, box("moof")})},
      {"Corrupted MP4: A chunk lies in no mdat box", pictures({1, 101})},
      {"Corrupted MP4: No track_ID is left behind the video's", movie({mvhd(1), track("vide", 0xFFFFFFFE, 1)})},
      {"Corrupted MP4: stts duration does not fit 64 bits", good, sound({2, UINT32_MAX, UINT32_MAX, UINT32_MAX, 3})},
      {"Corrupted MP4: stts does not fit a row of 32 bits", good, sound({2, UINT32_MAX, 8, 1, 8})},
      {"Corrupted MP4: The media do not fit a file", withMdat(longBoxClaiming(UINT64_MAX - 500, "mdat"))},
      {"Write error: Failed to read video mdat", withMdat(boxClaiming(900, "mdat", {Bytes(20)}))},
      // A chunk of no bytes may lie at the end of its box, and a table may end ahead of its entries.
      {"", pictures({9, 8, 100})},
  };
  newAudio_ = directory_ / "new.m4a";
  EXPECT_EQ(failure(), "File not found: " + source_.string());
  for (const auto& row : rows) {
    writeFileAtomically(files_, source_, row.source);
    writeFileAtomically(files_, newAudio_, row.audio.empty() ? goodAudio : row.audio);
    EXPECT_EQ(failure(), row.failure);
  }
}

TEST_F(TrackReplacer, CollapsesTimesOnlyWhereTheLengthStays) {
  const auto audioTrack = [](const Bytes& stts) {
    return trackBox("soun", {box("free"), stts, fullBox("stsz", {0, 0})});
  };
  const Bytes uneven = fullBox("stts", {2, 9, 1024, 1, 1000}), cut = fullBox("stts", {3, 9, 1024, 1, 1024});
  const Bytes even = fullBox("stts", {1, 7, 1024}), none = fullBox("stts", {0}), timeless = fullBox("stts", {1, 7, 0});
  const struct {
    Bytes before, after;
    std::string line;
  } rows[] = {
      {even, even, "collapsed 1 entries into 1 (delta=1024)"},
      {fullBox("stts", {2, 6, 1000, 1, 1168}), even, "collapsed 2 entries into 1 (delta=1024)"},
      {uneven, uneven, "duration 10216 not divisible by samples 10, leaving stts as-is"},
      {cut, cut, "stts truncated"},
      {none, none, "no samples recorded"},
      {timeless, timeless, "computed zero delta, skipping"},
  };
  for (const auto& row : rows) {
    TrakBuffer trak(audioTrack(row.before));
    trak.normalizeAudioStts();
    EXPECT_EQ(Bytes(trak.bytes().begin(), trak.bytes().end()), audioTrack(row.after)) << row.line;
    EXPECT_EQ(log_.lines().back(), "  normalizeAudioStts: " + row.line);
  }
}

TEST_F(TrackReplacer, SurvivesDamageAnywhereInTheMoov) {
  const MovieLayout layout(readFile(files_, video_));
  const Bytes whole = layout.build({{Kind::raw, layout.ftyp}, {Kind::moov}, {Kind::mdat}});
  std::mt19937 random(7);
  int written = 0, played = 0;
  for (int round = 0; round < 300; ++round) {
    Bytes damaged = whole;
    const size_t at = layout.ftyp.size() + random() % (layout.moov.size() - 4);
    writeUInt32(damaged, round % 2 == 0 ? random() % 64 : static_cast<uint32_t>(random()), at);
    writeFileAtomically(files_, source_, damaged);
    if (!failure().empty() || ++written % 16 != 0 || !mediaHashes(source_).starts_with("0,v,")) continue;
    // A player that takes the damaged pictures finds the sound whole.
    EXPECT_NE(mediaHashes(output_).find("1" + newSound()), std::string::npos) << at;
    ++played;
  }
  EXPECT_LT(written, 300);
  EXPECT_GT(played, 3);
}

}  // namespace
}  // namespace tarn::test
