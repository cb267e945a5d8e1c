#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <random>

#include "StreamHash.h"
#include "audio/MP4AudioTrackReplacer.h"
#include "audio/TrackBoxEdit.h"
#include "mp4/DataExtensions.h"
#include "platform/ForwardingFileManager.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/LogCapture.h"
#include "support/MovieLayout.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using namespace test;
using Kind = MovieLayout::Piece::Kind;
using Case = AudioTrackReplacerError::Case;
using testing::HasSubstr;

constexpr uint64_t fourGiB = uint64_t{1} << 32;

class TrackReplacer : public testing::Test {
 protected:
  void write(const Path& path, const Bytes& bytes) { writeFileAtomically(files_, path, bytes); }
  void replace(FileManager& files) { MP4AudioTrackReplacer::replaceAudioTrack(files, source_, newAudio_, output_); }
  void replace() { replace(files_); }

  /// The description and the case with which a replacement fails.
  std::pair<std::optional<Case>, std::string> failure() {
    try {
      replace();
    } catch (const AudioTrackReplacerError& error) {
      return {error.kind(), error.description()};
    }
    return {std::nullopt, ""};
  }

  /// The output has the source's pictures and the new sound, and nothing that a player complains of.
  void expectWhole(const std::string& what) {
    EXPECT_EQ(streamHash(output_, "v:0"), streamHash(video_, "v:0")) << what;
    EXPECT_EQ(streamHash(output_, "a:0"), streamHash(newAudio_, "a:0")) << what;
    EXPECT_EQ(decoderComplaints(output_), "") << what;
  }

  std::string trackIDs() {
    return runProcess({"ffprobe", "-v", "error", "-show_entries", "stream=codec_type,id", "-of", "csv=p=0", output_})
        .output;
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
  MovieLayout plain(readFile(files_, video_));
  const auto chunks = plain.chunks();
  const uint64_t third = chunks[chunks.size() / 3], twoThirds = chunks[chunks.size() * 2 / 3];
  MovieLayout longOffsets = plain;
  longOffsets.useLongOffsets();
  MovieLayout hinted = plain;
  BoxEditor hint(plain.moov);
  hint.insert("moov", 8, trackBox("hint", {fullBox("stco", {1, 7})}));
  hinted.moov = hint.bytes;
  const MovieLayout::Piece ftyp{Kind::raw, plain.ftyp}, moov{Kind::moov}, mdat{Kind::mdat};
  const MovieLayout::Piece noise{Kind::raw, box("free", {Bytes(977)})};
  struct Row {
    std::string name;
    const MovieLayout& layout;
    std::vector<MovieLayout::Piece> pieces;
  };
  const Row rows[] = {
      {"moov ahead", plain, {ftyp, moov, mdat}},
      {"moov behind", plain, {ftyp, noise, mdat, moov}},
      {"media around the moov",
       plain,
       {ftyp,
        {Kind::mdat, {}, 0, third},
        noise,
        moov,
        {Kind::longMdat, {}, third, twoThirds},
        noise,
        {Kind::mdat, {}, twoThirds}}},
      {"64-bit offsets and sizes", longOffsets, {ftyp, moov, {Kind::longMdat}}},
      {"mdat without an end", plain, {ftyp, moov, {Kind::openMdat}}},
      {"moov without an end", plain, {ftyp, mdat, {Kind::openMoov}}},
      {"no ftyp", plain, {moov, mdat}},
      {"ftyp without an end", plain, {moov, mdat, {Kind::raw, boxClaiming(0, "ftyp", {values({0x69736F6D, 0})})}}},
      {"hint track ahead", hinted, {ftyp, moov, mdat}},
      {"a tail that is no box", plain, {ftyp, moov, mdat, {Kind::raw, values({3, 3, 3})}}},
  };
  for (const Row& row : rows) {
    write(source_, row.layout.build(row.pieces));
    replace();
    expectWhole(row.name);
    EXPECT_EQ(trackIDs(), "video,0x1\naudio,0x2\n") << row.name;
    const BoxEditor output(readFile(files_, output_));
    EXPECT_EQ(output.topLevel("ftyp").front().offset, 0u) << row.name;
    EXPECT_EQ(output.topLevel("moov").front().offset, output.topLevel("ftyp").front().end()) << row.name;
    EXPECT_THAT(std::string(textOf(output.get("moov"))), testing::Not(HasSubstr("edts"))) << row.name;
    const bool hasDefault = output.get("ftyp") == box("ftyp", {values({0x6D703432, 0, 0x6D703432})});  // "mp42"
    EXPECT_EQ(hasDefault, row.name == "no ftyp") << row.name;
  }
  EXPECT_TRUE(log_.contains("  Stripping edts box from audio trak (36 bytes)"));
}

/// Leaves a hole a hole where a file's first gigabytes are copied.
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
      const bool isHole = offset() > 0xA00000 && offset() + count < fourGiB - 0x4000000;
      if (!isHole) return ForwardingFileHandle::copyRange(target, count);
      seek(offset() + count);
      target.seek(target.offset() + count);
      return count;
    }
  };
};

TEST_F(TrackReplacer, TurnsStcoIntoCo64WhereTheMediaPass4GiB) {
  // The last chunk begins at the last byte that an stco can name; a moov ahead of it moves it on.
  const Path pictures = madeByFFmpeg(words("-f lavfi -i testsrc2=size=192x144:rate=25 -t 4 -c:v libx264 -bf 0"));
  MovieLayout layout(readFile(files_, pictures));
  BoxEditor moov(layout.moov);
  const auto stco = moov.at("moov/trak/mdia/minf/stbl/stco");
  const uint64_t last = layout.chunks().back(), mediaStart = fourGiB - 1 - last;
  for (size_t i = 0; i < moov.field(stco.offset + 12); ++i) {
    moov.setField(stco.offset + 16 + 4 * i, static_cast<uint32_t>(mediaStart + layout.chunks()[i]));
  }
  auto file = files_.open(source_, OpenMode::creating);
  file->write(layout.ftyp);
  file->write(longBoxClaiming(mediaStart + layout.media.size() - layout.ftyp.size(), "mdat"));
  file->seek(mediaStart);
  file->write(layout.media);
  file->write(moov.bytes);
  file->close();

  HoleCopier files(files_);
  replace(files);
  video_ = pictures;
  expectWhole("beyond 4 GiB");
  EXPECT_EQ(std::ranges::count(log_.lines(), "  Warning: stco offset would overflow 32-bit, upgrading to co64"), 4);
  EXPECT_TRUE(log_.contains(fmt::format("  Upgraded stco to co64: {0} bytes -> {1} bytes", stco.size,
                                        stco.size + 4 * moov.field(stco.offset + 12))));
}

// --- Boxes by hand ---

Bytes tkhd(uint32_t trackID, uint32_t duration) {
  return fullBox("tkhd", {0, 0, trackID, 0, duration});
}
Bytes mvhd(uint32_t timescale) {
  return box("mvhd", {values({0, 0, 0, timescale, 0}), Bytes(80)});
}
Bytes track(const std::string& handler, const Bytes& header, std::initializer_list<Bytes> tables) {
  BoxEditor editor(trackBox(handler, tables));
  editor.insert("trak", 8, header);
  return editor.bytes;
}
/// A file whose media begin at offset 8 with an empty `mdat`'s end.
Bytes movie(std::initializer_list<Bytes> boxes) {
  return joined({box("mdat", {Bytes(92)}), box("moov", boxes)});
}

TEST_F(TrackReplacer, NumbersTheNewTrackBehindTheVideoAndRescalesItsDuration) {
  newAudio_ = directory_ / "new.m4a";
  write(newAudio_, movie({mvhd(44100), track("soun", tkhd(1, 441000), {})}));
  for (uint32_t id : {0u, 5u, 0xFFFFFFFDu}) {
    write(source_, movie({mvhd(600), track("vide", tkhd(id, 5000), {})}));
    replace();
    const BoxEditor output(readFile(files_, output_));
    EXPECT_TRUE(log_.contains(fmt::format("  Updated audio track_ID: 1 -> {}", id + 1)));
    EXPECT_EQ(output.field(output.at("moov/mvhd").offset + 104), id + 2);
    EXPECT_EQ(output.field(output.at("moov/mvhd").offset + 24), 6000u);
  }
  EXPECT_TRUE(log_.contains("  Updated tkhd.duration: 441000 -> 6000"));
}

TEST_F(TrackReplacer, RefusesWhatItCannotExpress) {
  const Bytes goodTrack = track("vide", tkhd(1, 100), {});
  const Bytes good = movie({mvhd(600), goodTrack});
  const Bytes goodAudio = movie({mvhd(600), track("soun", tkhd(1, 100), {})});
  struct Row {
    Case kind;
    std::string text;
    Bytes source;
    Bytes audio;
  };
  const Row rows[] = {
      {Case::moovNotFound, "moov box not found in file", box("mdat"), goodAudio},
      {Case::corruptedMP4, "No mdat box found", box("moov", {mvhd(1), goodTrack}), goodAudio},
      {Case::corruptedMP4, "Cannot read audio moov", good, joined({box("mdat"), boxClaiming(999, "moov", {mvhd(1)})})},
      {Case::noVideoTrack, "No video track found", goodAudio, goodAudio},
      {Case::noVideoTrack, "No video track found", movie({mvhd(1), boxClaiming(0, "free"), goodTrack}), goodAudio},
      {Case::noAudioTrack, "No audio track found", good, good},
      {Case::corruptedMP4, "mvhd not found", movie({goodTrack}), goodAudio},
      {Case::corruptedMP4, "trak reaches over", movie({mvhd(1), boxClaiming(900, "trak", {Bytes(20)})}), goodAudio},
      {Case::corruptedMP4, "moof", joined({good, box("moof")}), goodAudio},
      {Case::corruptedMP4, "no mdat", movie({mvhd(1), track("vide", tkhd(1, 1), {fullBox("stco", {1, 101})})}),
       goodAudio},
      {Case::corruptedMP4, "track_ID", movie({mvhd(1), track("vide", tkhd(0xFFFFFFFE, 1), {})}), goodAudio},
      {Case::corruptedMP4, "duration", good,
       movie({mvhd(1), track("soun", tkhd(1, 1), {fullBox("stts", {2, UINT32_MAX, UINT32_MAX, UINT32_MAX, 3})})})},
      {Case::corruptedMP4, "32 bits", good,
       movie({mvhd(1), track("soun", tkhd(1, 1), {fullBox("stts", {2, UINT32_MAX, 8, 1, 8})})})},
      {Case::corruptedMP4, "do not fit a file",
       joined({box("moov", {mvhd(1), goodTrack}), longBoxClaiming(UINT64_MAX - 500, "mdat")}), goodAudio},
      {Case::writeError, "Failed to read video mdat",
       joined({box("moov", {mvhd(1), goodTrack}), boxClaiming(900, "mdat", {Bytes(20)})}), goodAudio},
  };
  newAudio_ = directory_ / "new.m4a";
  EXPECT_EQ(failure().second, "File not found: " + source_.string());
  for (const Row& row : rows) {
    write(source_, row.source);
    write(newAudio_, row.audio);
    const auto [kind, text] = failure();
    EXPECT_EQ(kind, row.kind) << row.text << " against " << text;
    EXPECT_THAT(text, HasSubstr(row.text));
  }
  // A chunk of no bytes may lie at the end of its box, and a table may end ahead of its entries.
  write(source_, movie({mvhd(1), track("vide", tkhd(1, 1), {fullBox("stco", {9, 8, 100})})}));
  EXPECT_EQ(failure().first, std::nullopt);
}

TEST_F(TrackReplacer, CollapsesTimesOnlyWhereTheLengthStays) {
  auto audioTrack = [](const Bytes& stts) { return trackBox("soun", {box("free"), stts, fullBox("stsz", {0, 0})}); };
  const Bytes uneven = fullBox("stts", {2, 9, 1024, 1, 1000}), shortTable = fullBox("stts", {3, 9, 1024, 1, 1024});
  struct Row {
    Bytes before, after;
    std::string line;
  };
  const Row rows[] = {
      {fullBox("stts", {1, 7, 1024}), fullBox("stts", {1, 7, 1024}), "collapsed 1 entries into 1 (delta=1024)"},
      {fullBox("stts", {2, 1, 1000, 1, 1048}), fullBox("stts", {1, 2, 1024}),
       "collapsed 2 entries into 1 (delta=1024)"},
      {uneven, uneven, "duration 10216 not divisible by samples 10, leaving stts as-is"},
      {shortTable, shortTable, "stts truncated"},
      {fullBox("stts", {0}), fullBox("stts", {0}), "no samples recorded"},
  };
  for (const Row& row : rows) {
    TrakBuffer trak(audioTrack(row.before));
    trak.normalizeAudioStts();
    EXPECT_EQ(Bytes(trak.bytes().begin(), trak.bytes().end()), audioTrack(row.after)) << row.line;
    EXPECT_EQ(log_.lines().back(), "  normalizeAudioStts: " + row.line);
  }
}

TEST_F(TrackReplacer, SurvivesDamageAnywhereInTheMoov) {
  MovieLayout layout(readFile(files_, video_));
  const Bytes sound = layout.build({{Kind::raw, layout.ftyp}, {Kind::moov}, {Kind::mdat}});
  std::mt19937 random(7);
  int written = 0;
  for (int round = 0; round < 300; ++round) {
    Bytes damaged = sound;
    const size_t at = layout.ftyp.size() + random() % (layout.moov.size() - 4);
    writeUInt32(damaged, round % 2 == 0 ? random() % 64 : static_cast<uint32_t>(random()), at);
    write(source_, damaged);
    try {
      replace();
      ++written;
      // A player that takes the damaged pictures finds the sound whole.
      if (round % 16 == 0 && !streamHash(source_, "v:0").empty()) {
        EXPECT_EQ(streamHash(output_, "a:0"), streamHash(newAudio_, "a:0")) << at;
      }
    } catch (const AudioTrackReplacerError&) {
    }
  }
  EXPECT_GT(written, 0);
  EXPECT_LT(written, 300);
}

}  // namespace
}  // namespace tarn
