#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "recover/LostMoov.h"
#include "support/BoxEditor.h"
#include "support/FileTest.h"
#include "support/FlashBeep.h"
#include "support/MediaMaker.h"
#include "support/ProbedMovie.h"

namespace tarn::test {
namespace {

using testing::HasSubstr;

/// What a recorder writes: moving pictures with a white one at each whole second, and a beep there. `hue` makes each
/// recording another one.
Path recording(int seconds, int hue, const std::string& encoding, const std::string& shape = "s=192x144:r=25",
               const std::string& ending = ".mp4") {
  return madeByFFmpeg(
      words(fmt::format("-f lavfi -i testsrc2={2}:d={0},hue=h={1},noise=alls=6:all_seed={1},"
                        "drawbox=color=black@0.85:t=fill,drawbox=enable='lt(mod(t,1),0.02)':color=white:t=fill "
                        "-f lavfi -i aevalsrc='0.8*sin(2*PI*1000*t)*lt(mod(t,1),0.04)+0.03*random({1})':s=48000:d={0} "
                        "-pix_fmt yuv420p -preset veryfast {3}",
                        seconds, hue, shape, encoding)),
      ending);
}

const std::string avc = "-c:v libx264 -bf 2 -g 50 -c:a aac -ac 2";
const std::string hevc = "-c:v libx265 -tag:v hvc1 -x265-params log-level=error:bframes=3:keyint=50 -c:a aac -ac 2";

const Bytes ftyp = box("ftyp", {bytesFrom("'isom' 00000000")});

enum class Loss { sizeZero, sizeRight, sizeHuge, longSizeZero, sizeStale, moovCut };

/// The recording as a recorder leaves it that dies before it has written the `moov`.
Bytes withoutMoov(const Path& file, Loss loss = Loss::sizeZero) {
  BoxEditor movie(contentsOf(file));
  const auto mdat = movie.at("mdat"), moov = movie.at("moov");
  movie.bytes.resize(loss == Loss::moovCut ? moov.offset + moov.size / 2 : moov.offset);
  if (loss == Loss::sizeZero) movie.setField(mdat.offset, 0);
  if (loss == Loss::sizeHuge) movie.setField(mdat.offset, 0xFFFFFFF0);
  if (loss == Loss::sizeStale) movie.setField(mdat.offset, static_cast<uint32_t>(mdat.size / 3));
  if (loss == Loss::longSizeZero) {
    // ffmpeg leaves 8 bytes of `free` ahead of an `mdat`, for a long size.
    movie.setField(mdat.offset - 8, 1);
    std::ranges::copy(bytesOf("mdat"), movie.bytes.begin() + static_cast<std::ptrdiff_t>(mdat.offset) - 4);
    for (size_t i = 0; i < 8; ++i) movie.bytes[mdat.offset + i] = 0;
  }
  return movie.bytes;
}

/// Others than `recording` makes of the same encoding, of which a movie can be rebuilt.
Path healthy(const std::string& encoding, const std::string& shape = "s=192x144:r=25",
             const std::string& ending = ".mp4") {
  return recording(6, 200, encoding, shape, ending);
}

class LostMoovTest : public FileTest {
 protected:
  RebuiltMovie rebuild(const Bytes& broken, const Path& like) {
    return rebuildLostMoov(files_, write(broken), like, result_, [](double) {});
  }
  std::string refusal(const Bytes& broken, const Path& like) {
    return failureOf([&] { rebuild(broken, like); });
  }
  Path odd(const BoxEditor& movie) {
    writeFileAtomically(files_, directory_ / "odd.mp4", movie.bytes);
    return directory_ / "odd.mp4";
  }

  void expectSamePackets(const Path& file, bool atTheSameTimes = true) {
    const Packets before = packetsOf(file, false), after = packetsOf(result_, false);
    const auto areSame = [&](const Packet& a, const Packet& b) {
      return atTheSameTimes ? a.isSame(b) : a.hash == b.hash;
    };
    for (const char* kind : {"video", "audio"}) {
      const bool isThere = before.contains(kind);
      EXPECT_TRUE(!isThere || std::ranges::equal(before.at(kind), after.at(kind), areSame)) << kind;
    }
    EXPECT_EQ(decoderComplaints(result_), "");
  }

  void expectInTime(size_t count) {
    const auto heard = beats(result_);
    EXPECT_EQ(heard.size(), count);
    for (const Beat& beat : heard) EXPECT_NEAR(beat.beepAfter, 0, 0.025) << beat.flash;
  }

  const Path result_ = directory_ / "rebuilt.mp4";
};

TEST_F(LostMoovTest, ARecordingIsWhatItWas) {
  struct Row {
    std::string encoding;
    Loss loss;
    std::string shape = "s=192x144:r=25";
    std::string ending = ".mp4";
    size_t beats = 8;
  };
  const std::string noBFrames = "-x265-params log-level=error:bframes=0:slices=2:repeat-headers=1";
  const Row rows[] = {
      {avc, Loss::sizeZero},
      {"-c:v libx264 -bf 0 -c:a aac -ac 1 -b:a 40k", Loss::sizeRight},
      {"-c:v libx264 -bf 3 -x264-params slices=3:aud=1:keyint=30 -an", Loss::longSizeZero, "s=192x144:r=25", ".mp4", 0},
      {"-c:v libx264 -bf 2 -flags +ildct+ilme -x264-params tff=1 -c:a aac -ac 6", Loss::sizeStale, "s=192x160:r=50",
       ".mp4", 1},
      {hevc, Loss::sizeHuge},
      {"-c:v libx265 -tag:v hvc1 " + noBFrames + " -c:a aac -ar 44100", Loss::moovCut, "s=190x142:r=30000/1001"},
      {"-c:v libx264 -bf 2 -c:a pcm_s16le -ac 2", Loss::sizeRight, "s=192x144:r=25", ".mov"},
      {"-c:v libx265 -tag:v hvc1 " + noBFrames + " -c:a pcm_s24be -ac 1", Loss::sizeZero, "s=192x288:r=25", ".mov"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.encoding);
    const Path file = recording(8, 30, row.encoding, row.shape, row.ending);
    const Bytes broken = withoutMoov(file, row.loss);
    const RebuiltMovie rebuilt = rebuild(broken, healthy(row.encoding, row.shape, row.ending));
    EXPECT_EQ(rebuilt.brokenOff.value_or(""), "");
    EXPECT_NEAR(rebuilt.seconds, 8, 0.05);
    if (row.ending == ".mov") {  // whose PCM ffmpeg takes for other packets
      EXPECT_EQ(mediaHashes(result_), mediaHashes(file));
      EXPECT_EQ(decoderComplaints(result_), "");
    } else {
      expectSamePackets(file);
    }
    if (row.beats > 0) expectInTime(row.beats);
  }
}

TEST_F(LostMoovTest, TheEndOfASequenceIsNotThatOfTheRecording) {
  const std::string encoding = "-c:v libx264 -bf 0 -g 25 -an";
  const Bytes whole = contentsOf(recording(4, 30, encoding, "s=192x144:r=25", ".h264"));
  std::string stream(textOf(whole));
  const std::string set("\0\0\0\1\x67", 5), end("\0\0\0\1\x0A", 5);
  size_t ends = 0;
  for (size_t at = 0; (at = stream.find(set, at + 1)) != std::string::npos; at += end.size(), ++ends) {
    stream.insert(at, end);
  }
  ASSERT_EQ(ends, 3u);
  writeFileAtomically(files_, directory_ / "ends.h264", bytesOf(stream));
  const Path file = directory_ / "ends.mp4";
  runProcess({"ffmpeg", "-v", "error", "-r", "25", "-i", directory_ / "ends.h264", "-c", "copy", file});
  EXPECT_EQ(rebuild(withoutMoov(file), healthy(encoding)).brokenOff.value_or(""), "");
  expectSamePackets(file, false);
}

/// The packets of the result are the first ones of the recording. One in which the damage begins may be among them, if
/// no decoder complains.
TEST_F(LostMoovTest, WhatLiesBeforeDamageOrACutIsKept) {
  for (const std::string& encoding : {avc, hevc}) {
    SCOPED_TRACE(encoding);
    const Path file = recording(8, 30, encoding);
    const Bytes whole = withoutMoov(file);
    const Packets all = packetsOf(file, false);
    std::minstd_rand random(5);
    bool isCut = false;
    for (const double place : {0.3, 0.5, 0.75, 0.97}) {
      isCut = !isCut;
      SCOPED_TRACE(fmt::format("{} at {}", isCut ? "cut" : "damaged", place));
      const auto at = static_cast<size_t>(place * static_cast<double>(whole.size()));
      Bytes broken = whole;
      if (isCut) broken.resize(at);
      for (size_t i = at; i < std::min(at + 300, broken.size()); ++i) broken[i] = static_cast<uint8_t>(random() >> 8);
      const RebuiltMovie rebuilt = rebuild(broken, healthy(encoding));
      const auto isUndamaged = [&](const Packet& packet) { return packet.place + packet.size <= int64_t(at); };
      for (const auto& [kind, kept] : packetsOf(result_, false)) {
        const auto& before = all.at(kind);
        EXPECT_LE(kept.size(), before.size());
        const auto undamaged = std::ranges::count_if(before, isUndamaged);
        const auto differs = std::ranges::mismatch(kept, before, &Packet::isSame).in1;
        EXPECT_TRUE(differs == kept.end() || differs - kept.begin() >= undamaged) << kind;
        if (kind != "video") continue;
        EXPECT_EQ(kept.size(), rebuilt.pictures);
        const auto least =
            static_cast<size_t>(undamaged) - (rebuilt.brokenOff ? 20 : 1);  // some need others that are gone
        EXPECT_TRUE(kept.size() >= least && kept.size() <= static_cast<size_t>(undamaged) + 1) << kept.size();
      }
      EXPECT_EQ(decoderComplaints(result_), "");
    }
  }
}

TEST_F(LostMoovTest, DateAndPlaceOfTheHealthyMovieAreNotTakenOver) {
  const std::string facts =
      "-metadata creation_time=2020-02-02T02:02:02Z -metadata location=+47.5+008.7/ -metadata title=Lake";
  const Path file = recording(8, 30, avc), dated = healthy(avc + " " + facts);
  BoxEditor movie(contentsOf(dated));
  for (const std::string& parent : {std::string("moov/trak/mdia"), std::string("moov/trak"), std::string("moov")}) {
    movie.insert(parent, movie.at(parent).offset + 8, box("uuid", {Bytes(24, 9)}));  // ahead of the box with the date
  }
  for (const Path& like : {dated, odd(movie)}) {
    SCOPED_TRACE(like);
    rebuild(withoutMoov(file), like);
    const auto told = runProcess({"ffprobe", "-v", "error", "-show_entries", "format_tags:stream_tags", result_});
    for (const char* fact : {"2020", "47.5", "Lake"}) EXPECT_THAT(told.output, testing::Not(HasSubstr(fact)));
    expectSamePackets(file);
  }
}

TEST_F(LostMoovTest, TracksWithoutSamplesInTheHealthyMovieArePassedOver) {
  BoxEditor movie(contentsOf(healthy(avc)));
  for (const char* other : {"-c:v libx264 -an", "-vn -c:a pcm_s16le"}) {
    BoxEditor empty(contentsOf(recording(1, 0, other, "s=192x144:r=25", ".mov")));
    empty.setField(empty.at("moov/trak/mdia/minf/stbl/stsz").offset + 16, 0);
    movie.insert("moov", movie.at("moov/trak").offset, empty.get("moov/trak"));
  }
  EXPECT_EQ(rebuild(withoutMoov(recording(8, 30, avc)), odd(movie)).pictures, 200U);
}

/// As phones record: pictures that last differently long, and a track of something else.
TEST_F(LostMoovTest, PicturesOfAnyLengthAndOtherTracksOfThePhoneAreTaken) {
  const Path texts = directory_ / "texts.srt";
  std::string lines;
  for (int i = 1; i < 6; ++i) lines += fmt::format("{0}\n00:00:0{0},000 --> 00:00:0{0},700\n{1}\n\n", i, "a text");
  writeFileAtomically(files_, texts, bytesOf(lines));
  const auto phone = [&](int seconds, int hue) {
    const Path plain = recording(seconds, hue, "-c:v libx264 -bf 0 -g 50 -c:a aac -ac 2");
    return madeByFFmpeg(
        words(fmt::format("-i {} -i {} -map 0 -map 1 -c copy -c:s mov_text -bsf:v "
                          "setts=ts='TS+mod(N,3)*100'",
                          plain.string(), texts.string())));
  };
  const Path file = phone(8, 30);
  const RebuiltMovie rebuilt = rebuild(withoutMoov(file), phone(6, 200));
  EXPECT_EQ(rebuilt.brokenOff.value_or(""), "");
  EXPECT_THAT(rebuilt.notes, testing::ElementsAre(HasSubstr("40.0 ms"), HasSubstr("\"sbtl\" is lost")));
  expectSamePackets(file, false);
  EXPECT_EQ(BoxEditor(contentsOf(result_)).all("moov/trak").size(), 2U);
  expectInTime(8);
}

/// A few bytes that pass for a packet of sound, again and again, would take more memory than the file has bytes.
TEST_F(LostMoovTest, SoundDoesNotRunAheadOfThePictures) {
  const Path file = recording(8, 30, avc);
  Bytes broken = withoutMoov(file);
  const Packet packet = packetsOf(file, false).at("audio")[100];
  const auto first = broken.begin() + packet.place;
  const Bytes bytes(first, first + packet.size);
  for (int i = 0; i < 5000; ++i) broken.insert(broken.end(), bytes.begin(), bytes.end());
  EXPECT_THAT(refusal(broken, healthy(avc)), HasSubstr("8.0 s of pictures and 20."));
}

/// Another track whose pieces have a thousand lengths, and media in which each of them has to be tried.
TEST_F(LostMoovTest, AHealthyMovieThatMakesTheWalkLookAtAllBytesAgainAndAgainIsRefused) {
  BoxEditor like(contentsOf(healthy(avc)));
  constexpr uint32_t lengths = 1000;
  Bytes sizes, places;
  for (uint32_t i = 1; i <= lengths; ++i) {
    ByteWriter(sizes).uint32(i);
    ByteWriter(places).uint32(i * 2 * lengths);
  }
  like.insert(
      "moov", like.at("moov").end(),
      trackBox("text", {fullBox("stsd", {0}), fullBox("stts", {1, lengths, 1}), fullBox("stsc", {1, 1, 1, 1}),
                        box("stsz", {values({0, 0, lengths}), sizes}), box("stco", {values({0, lengths}), places})}));
  const Path file = recording(8, 30, avc);
  const Packet first = packetsOf(file, false).at("video").front();
  const Bytes whole = contentsOf(file);
  Bytes broken = joined({ftyp, boxClaiming(0, "mdat")});
  for (int i = 0; i < 100; ++i) {
    broken.insert(broken.end(), whole.begin() + first.place, whole.begin() + first.place + first.size);
    broken.insert(broken.end(), lengths, 0xFF);
  }
  EXPECT_THAT(refusal(broken, odd(like)), HasSubstr("cannot be told apart"));
}

TEST_F(LostMoovTest, AWrongHealthyMovieIsRefused) {
  const Bytes brokenAVC = withoutMoov(recording(8, 30, avc)), brokenHEVC = withoutMoov(recording(8, 30, hevc));
  const std::string others = "-c:v libx265 -tag:v hvc1 -x265-params log-level=error:bframes=0:keyint=50 -c:a aac -ac 2";
  for (const Path& like :
       {healthy(hevc), healthy(avc, "s=320x240:r=25"), healthy("-c:v libx264 -bf 2 -coder 0 -c:a aac -ac 2"),
        healthy("-c:v libx264 -bf 2 -g 50 -c:a aac -ac 1"), healthy(avc + " -ar 24000"), healthy(avc + " -an")}) {
    EXPECT_THAT(refusal(brokenAVC, like), HasSubstr("breaks at byte"));
  }
  for (const Path& like : {healthy(avc), healthy(hevc, "s=320x240:r=25"), healthy(others)}) {
    EXPECT_THAT(refusal(brokenHEVC, like), HasSubstr("breaks at byte"));
  }
  EXPECT_THAT(refusal(brokenAVC, healthy(avc, "s=192x144:r=50")), HasSubstr("s of pictures and 8.0 s of sound"));
  // Shorter pictures than a tick have no place in the tables.
  const std::string even = "-c:v libx264 -bf 0 -g 50 -c:a aac -ac 2", media = "moov/trak/mdia/";
  BoxEditor like(contentsOf(healthy(even)));
  like.setField(like.at(media + "mdhd").offset + 20, 25);
  like.setField(like.at(media + "mdhd").offset + 24, 151);
  like.replace(like.at(media + "minf/stbl/stts"), fullBox("stts", {3, 70, 1, 1, 2, 79, 1}));
  EXPECT_THAT(refusal(withoutMoov(recording(8, 30, even, "s=192x144:r=30")), odd(like)),
              HasSubstr("9.7 s of pictures and 8.0 s of sound"));
  EXPECT_FALSE(files_.fileExists(result_));
}

TEST_F(LostMoovTest, AHealthyMovieThatCannotServeIsToldWhy) {
  const Path file = healthy(avc);
  const Bytes broken = withoutMoov(recording(8, 30, avc));
  const auto copied = [&](const std::string& arguments) {
    return madeByFFmpeg(words(fmt::format("-i {} {}", file.string(), arguments)));
  };
  BoxEditor movie(contentsOf(file));
  movie.rename("moov/trak/mdia/minf/stbl/stsd/avc1", "\xFF\xC3 1");
  const std::pair<Path, std::string> rows[] = {
      {copied("-c copy -movflags frag_keyframe+empty_moov"), "it is in fragments; repair it first"},
      {copied("-map 0:v -map 0:v -c copy"), "it has two tracks of pictures"},
      {copied("-map 0:v -c copy -c:s mov_text -map 0:a -map 0:a"), "it has two tracks of sound"},
      {copied("-c:v mpeg4 -c:a copy"), "its pictures are neither AVC nor HEVC (\"mp4v\")"},
      {copied("-c:v copy -c:a ac3"), "its sound is neither AAC nor PCM (\"ac-3\")"},
      {copied("-vn -c copy"), "it has no track of pictures"},
      {odd(movie), "its pictures are neither AVC nor HEVC (\"\")"},
  };
  for (const auto& [like, why] : rows) EXPECT_EQ(refusal(broken, like), "The healthy movie cannot serve: " + why);
  EXPECT_EQ(refusal(contentsOf(file), file), "The moov of this movie is there: repair it without --like");
}

TEST_F(LostMoovTest, BytesThatAreNoMediaAreRefused) {
  Bytes noise(3 << 20);
  std::minstd_rand random(3);
  for (uint8_t& byte : noise) byte = static_cast<uint8_t>(random() >> 8);
  for (const Path& like :
       {healthy(avc), healthy(hevc), healthy("-c:v libx264 -bf 2 -c:a pcm_s16le -ac 2", "s=192x144:r=25", ".mov")}) {
    for (const Bytes& media : {noise, Bytes(3 << 20)}) {
      EXPECT_THAT(refusal(joined({ftyp, boxClaiming(0, "mdat", {media})}), like), HasSubstr("no picture was found"));
    }
    for (const Bytes& file : {ftyp, Bytes(), noise}) {
      EXPECT_EQ(refusal(file, like), "This file holds no media (mdat) outside of fragments");
    }
  }
}

}  // namespace
}  // namespace tarn::test
