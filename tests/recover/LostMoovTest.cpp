#include <fmt/format.h>

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

enum class Loss { sizeZero, sizeRight, sizeHuge, longSizeZero, sizeStale, moovCut };

/// The recording as a recorder leaves it that dies before it has written the `moov`.
Bytes withoutMoov(const Path& file, Loss loss = Loss::sizeZero) {
  PosixFileManager files("/nonexistent");
  BoxEditor movie(readFile(files, file));
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

class LostMoovTest : public FileTest {
 protected:
  RebuiltMovie rebuild(const Bytes& broken, const Path& healthy) {
    return rebuildLostMoov(files_, write(broken), healthy, result_, [](double) {});
  }
  std::string refusal(const Bytes& broken, const Path& healthy) {
    return failureOf([&] { rebuild(broken, healthy); });
  }

  /// The packets of the result are the first ones of the recording, played when they were, and nobody complains. One in
  /// which the damage at this place begins may be among them, if no decoder complains. Returns the number of pictures.
  size_t expectBeginningOf(const Path& file, size_t damage) {
    const Packets whole = ProbedMovie(file).media, kept = ProbedMovie(result_).media;
    for (const auto& [kind, packets] : kept) {
      const auto& all = whole.at(kind);
      EXPECT_LE(packets.size(), all.size()) << kind;
      for (size_t i = 0; i + 1 < std::min(packets.size() + 1, all.size()); ++i) {
        if (all[i + 1].place > static_cast<int64_t>(damage)) break;
        EXPECT_TRUE(packets[i].isSame(all[i])) << kind << " packet " << i;
      }
    }
    EXPECT_EQ(decoderComplaints(result_), "");
    return kept.at("video").size();
  }

  void expectSamePackets(const Path& file) {
    const Packets before = ProbedMovie(file).media, after = ProbedMovie(result_).media;
    for (const auto& [kind, packets] : before) {
      ASSERT_EQ(after.at(kind).size(), packets.size()) << kind;
      for (size_t i = 0; i < packets.size(); ++i) EXPECT_TRUE(after.at(kind)[i].isSame(packets[i])) << kind << i;
    }
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
    const RebuiltMovie rebuilt = rebuild(broken, recording(6, 200, row.encoding, row.shape, row.ending));
    EXPECT_FALSE(rebuilt.brokenOff) << rebuilt.brokenOff.value_or("");
    EXPECT_NEAR(rebuilt.seconds, 8, 0.05);
    if (row.ending == ".mov") {  // whose PCM ffmpeg takes for other packets
      EXPECT_EQ(mediaHashes(result_), mediaHashes(file));
    } else {
      expectSamePackets(file);
    }
    EXPECT_EQ(decoderComplaints(result_), "");
    if (row.beats == 0) continue;
    const auto heard = beats(result_);
    EXPECT_EQ(heard.size(), row.beats);
    for (const Beat& beat : heard) EXPECT_NEAR(beat.beepAfter, 0, 0.025) << beat.flash;
  }
}

TEST_F(LostMoovTest, WhatLiesAheadOfDamageOrACutIsKept) {
  for (const std::string& encoding : {avc, hevc}) {
    SCOPED_TRACE(encoding);
    const Path file = recording(8, 30, encoding), healthy = recording(6, 200, encoding);
    const Bytes whole = withoutMoov(file);
    const std::vector<Packet> all = ProbedMovie(file).media.at("video");
    std::minstd_rand random(5);
    bool isCut = false;
    for (const double place : {0.3, 0.5, 0.75, 0.97}) {
      isCut = !isCut;
      SCOPED_TRACE(fmt::format("{} at {}", isCut ? "cut" : "damaged", place));
      const auto at = static_cast<size_t>(place * static_cast<double>(whole.size()));
      Bytes broken = whole;
      if (isCut) broken.resize(at);
      for (size_t i = at; i < std::min(at + 300, broken.size()); ++i) broken[i] = static_cast<uint8_t>(random() >> 8);
      const RebuiltMovie rebuilt = rebuild(broken, healthy);
      const auto ahead = static_cast<size_t>(
          std::ranges::count_if(all, [&](const Packet& packet) { return packet.place < static_cast<int64_t>(at); }));
      const size_t kept = expectBeginningOf(file, at);
      EXPECT_EQ(kept, rebuilt.pictures);
      EXPECT_LE(kept, ahead);
      EXPECT_GT(kept + 20, ahead);  // the last ones may need others that are gone
      EXPECT_TRUE(rebuilt.brokenOff || kept + 1 >= ahead);
    }
  }
}

TEST_F(LostMoovTest, DateAndPlaceOfTheHealthyMovieAreNotTakenOver) {
  const std::string facts =
      "-metadata creation_time=2020-02-02T02:02:02Z -metadata location=+47.5+008.7/ -metadata title=Lake";
  const Path file = recording(8, 30, avc), healthy = recording(6, 200, avc + " " + facts);
  BoxEditor odd(readFile(files_, healthy));
  for (const std::string& parent : {std::string("moov/trak/mdia"), std::string("moov/trak"), std::string("moov")}) {
    odd.insert(parent, odd.at(parent).offset + 8, box("uuid", {Bytes(24, 9)}));  // ahead of the box with the date
  }
  writeFileAtomically(files_, directory_ / "odd.mp4", odd.bytes);
  for (const Path& like : {healthy, directory_ / "odd.mp4"}) {
    SCOPED_TRACE(like);
    rebuild(withoutMoov(file), like);
    const ProcessResult told =
        runProcess({"ffprobe", "-v", "error", "-show_entries", "format_tags:stream_tags", result_});
    for (const char* fact : {"2020", "47.5", "Lake"}) {
      EXPECT_EQ(told.output.find(fact), std::string::npos) << told.output;
    }
    expectSamePackets(file);
  }
}

TEST_F(LostMoovTest, TracksWithoutSamplesInTheHealthyMovieArePassedOver) {
  BoxEditor movie(readFile(files_, recording(6, 200, avc)));
  for (const char* other : {"-c:v libx264 -an", "-vn -c:a pcm_s16le"}) {
    BoxEditor empty(readFile(files_, recording(1, 0, other, "s=192x144:r=25", ".mov")));
    empty.setField(empty.at("moov/trak/mdia/minf/stbl/stsz").offset + 16, 0);
    movie.insert("moov", movie.at("moov/trak").offset, empty.get("moov/trak"));
  }
  writeFileAtomically(files_, directory_ / "odd.mp4", movie.bytes);
  EXPECT_EQ(rebuild(withoutMoov(recording(8, 30, avc)), directory_ / "odd.mp4").pictures, 200U);
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
  EXPECT_EQ(rebuilt.pictures, 200U);
  ASSERT_EQ(rebuilt.notes.size(), 2U);
  EXPECT_NE(rebuilt.notes[0].find("40.0 ms"), std::string::npos) << rebuilt.notes[0];
  EXPECT_NE(rebuilt.notes[1].find("\"sbtl\" is lost"), std::string::npos) << rebuilt.notes[1];
  const Packets before = packetsOf(file, false), after = packetsOf(result_, false);
  for (const char* kind : {"video", "audio"}) {
    ASSERT_EQ(after.at(kind).size(), before.at(kind).size()) << kind;
    for (size_t i = 0; i < after.at(kind).size(); ++i) {
      EXPECT_EQ(after.at(kind)[i].hash, before.at(kind)[i].hash) << kind << i;
    }
  }
  EXPECT_EQ(decoderComplaints(result_), "");
  EXPECT_EQ(BoxEditor(readFile(files_, result_)).all("moov/trak").size(), 2U);
  const auto heard = beats(result_);
  EXPECT_EQ(heard.size(), 8U);
  for (const Beat& beat : heard) EXPECT_NEAR(beat.beepAfter, 0, 0.025) << beat.flash;
}

/// A few bytes that pass for a packet of sound, again and again, would take more memory than the file has bytes.
TEST_F(LostMoovTest, SoundDoesNotRunAheadOfThePictures) {
  const Path file = recording(8, 30, avc);
  Bytes broken = withoutMoov(file);
  const std::vector<Packet> packets = ProbedMovie(file).media.at("audio");
  const Packet& packet = packets[100];
  const auto first = broken.begin() + packet.place;
  const Bytes bytes(first, first + packet.size);
  for (int i = 0; i < 5000; ++i) broken.insert(broken.end(), bytes.begin(), bytes.end());
  const std::string said = refusal(broken, recording(6, 200, avc));
  EXPECT_NE(said.find("8.0 s of pictures and 20."), std::string::npos) << said;
}

/// Another track whose pieces have a thousand lengths, and media in which each of them has to be tried.
TEST_F(LostMoovTest, AHealthyMovieThatMakesTheWalkLookAtAllBytesAgainAndAgainIsRefused) {
  const Path file = recording(8, 30, avc);
  BoxEditor like(readFile(files_, recording(6, 200, avc)));
  constexpr uint32_t lengths = 1000;
  Bytes sizes, places;
  for (uint32_t i = 1; i <= lengths; ++i) {
    sizes = joined({sizes, values({i})});
    places = joined({places, values({i * 2 * lengths})});
  }
  const auto moov = like.at("moov");
  like.insert(
      "moov", moov.end(),
      trackBox("text", {fullBox("stsd", {0}), fullBox("stts", {1, lengths, 1}), fullBox("stsc", {1, 1, 1, 1}),
                        box("stsz", {values({0, 0, lengths}), sizes}), box("stco", {values({0, lengths}), places})}));
  writeFileAtomically(files_, directory_ / "odd.mp4", like.bytes);
  const Packet first = ProbedMovie(file).media.at("video").front();
  const Bytes whole = readFile(files_, file);
  Bytes broken{0, 0, 0, 16, 'f', 't', 'y', 'p', 'i', 's', 'o', 'm', 0, 0, 0, 0, 0, 0, 0, 0, 'm', 'd', 'a', 't'};
  for (int i = 0; i < 100; ++i) {
    broken.insert(broken.end(), whole.begin() + first.place, whole.begin() + first.place + first.size);
    broken.insert(broken.end(), lengths, 0xFF);
  }
  EXPECT_NE(refusal(broken, directory_ / "odd.mp4").find("cannot be told apart"), std::string::npos);
}

/// Shorter pictures than a tick have no place in the tables.
TEST_F(LostMoovTest, PicturesAreNotMadeShorterThanATick) {
  BoxEditor like(readFile(files_, recording(6, 200, "-c:v libx264 -bf 0 -g 50 -c:a aac -ac 2")));
  const std::string media = "moov/trak/mdia/";
  like.setField(like.at(media + "mdhd").offset + 20, 25);
  like.setField(like.at(media + "mdhd").offset + 24, 151);
  like.replace(like.at(media + "minf/stbl/stts"), fullBox("stts", {3, 70, 1, 1, 2, 79, 1}));
  writeFileAtomically(files_, directory_ / "odd.mp4", like.bytes);
  const Path faster = recording(8, 30, "-c:v libx264 -bf 0 -g 50 -c:a aac -ac 2", "s=192x144:r=30");
  const std::string words = refusal(withoutMoov(faster), directory_ / "odd.mp4");
  EXPECT_NE(words.find("9.7 s of pictures and 8.0 s of sound"), std::string::npos) << words;
}

TEST_F(LostMoovTest, AWrongHealthyMovieIsRefused) {
  const Bytes brokenAVC = withoutMoov(recording(8, 30, avc)), brokenHEVC = withoutMoov(recording(8, 30, hevc));
  const std::string mono = "-c:v libx264 -bf 2 -g 50 -c:a aac -ac 1";
  struct Row {
    const Bytes& broken;
    Path healthy;
    std::string words;
  };
  const Row rows[] = {
      {brokenAVC, recording(6, 200, hevc), "breaks at byte"},
      {brokenHEVC, recording(6, 200, avc), "breaks at byte"},
      {brokenAVC, recording(6, 200, avc, "s=320x240:r=25"), "breaks at byte"},
      {brokenHEVC, recording(6, 200, hevc, "s=320x240:r=25"), "breaks at byte"},
      {brokenHEVC,
       recording(6, 200, "-c:v libx265 -tag:v hvc1 -x265-params log-level=error:bframes=0:keyint=50 -c:a aac -ac 2"),
       "breaks at byte"},
      {brokenAVC, recording(6, 200, "-c:v libx264 -bf 2 -coder 0 -c:a aac -ac 2"), "breaks at byte"},
      {brokenAVC, recording(6, 200, avc, "s=192x144:r=50"), "s of pictures and 8.0 s of sound"},
      {brokenAVC, recording(6, 200, mono), "breaks at byte"},
      {brokenAVC, recording(6, 200, avc + " -ar 24000"), "breaks at byte"},
      {brokenAVC, recording(6, 200, avc + " -an"), "breaks at byte"},
  };
  for (const auto& [broken, healthy, expected] : rows) {
    const std::string words = refusal(broken, healthy);
    EXPECT_NE(words.find(expected), std::string::npos) << words;
    EXPECT_FALSE(files_.fileExists(result_));
  }
}

TEST_F(LostMoovTest, AHealthyMovieThatCannotServeIsToldWhy) {
  const Path file = recording(6, 200, avc);
  const Bytes broken = withoutMoov(recording(8, 30, avc));
  const auto copied = [&](const std::string& arguments) {
    return madeByFFmpeg(words(fmt::format("-i {} {}", file.string(), arguments)));
  };
  const std::pair<Path, std::string> rows[] = {
      {copied("-c copy -movflags frag_keyframe+empty_moov"), "it is in fragments; repair it first"},
      {copied("-map 0:v -map 0:v -c copy"), "it has two tracks of pictures"},
      {copied("-map 0:v -c copy -c:s mov_text -map 0:a -map 0:a"), "it has two tracks of sound"},
      {copied("-c:v mpeg4 -c:a copy"), "its pictures are neither AVC nor HEVC (\"mp4v\")"},
      {copied("-c:v copy -c:a ac3"), "its sound is neither AAC nor PCM (\"ac-3\")"},
      {copied("-vn -c copy"), "it has no track of pictures"},
  };
  for (const auto& [healthy, why] : rows) {
    EXPECT_EQ(refusal(broken, healthy), "The healthy movie cannot serve: " + why);
  }
  BoxEditor odd(readFile(files_, file));
  odd.rename("moov/trak/mdia/minf/stbl/stsd/avc1", "\xFF\xC3 1");
  writeFileAtomically(files_, directory_ / "odd.mp4", odd.bytes);
  EXPECT_EQ(refusal(broken, directory_ / "odd.mp4"),
            "The healthy movie cannot serve: its pictures are neither AVC nor HEVC (\"\")");
  EXPECT_EQ(refusal(readFile(files_, file), file), "The moov of this movie is there: repair it without --like");
}

TEST_F(LostMoovTest, BytesThatAreNoMediaAreRefused) {
  Bytes noise(3 << 20);
  std::minstd_rand random(3);
  for (uint8_t& byte : noise) byte = static_cast<uint8_t>(random() >> 8);
  const Bytes zeros(3 << 20);
  const Bytes ftyp = {0, 0, 0, 16, 'f', 't', 'y', 'p', 'i', 's', 'o', 'm', 0, 0, 0, 0};
  const Path healthy[] = {recording(6, 200, avc), recording(6, 200, hevc),
                          recording(6, 200, "-c:v libx264 -bf 2 -c:a pcm_s16le -ac 2", "s=192x144:r=25", ".mov")};
  for (const Path& like : healthy) {
    for (const Bytes& media : {noise, zeros}) {
      Bytes file = ftyp;
      file.insert(file.end(), {0, 0, 0, 0, 'm', 'd', 'a', 't'});
      file.insert(file.end(), media.begin(), media.end());
      EXPECT_NE(refusal(file, like).find("no picture was found"), std::string::npos);
    }
    EXPECT_EQ(refusal(ftyp, like), "This file holds no media (mdat) outside of fragments");
    EXPECT_EQ(refusal({}, like), "This file holds no media (mdat) outside of fragments");
    EXPECT_EQ(refusal(noise, like), "This file holds no media (mdat) outside of fragments");
  }
}

}  // namespace
}  // namespace tarn::test
