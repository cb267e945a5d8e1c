#include <gmock/gmock.h>

#include "fragments/FragmentsTest.h"
#include "mp4/MP4SampleTableParser.h"
#include "mp4/SampleTimes.h"
#include "presentation/Presentation.h"
#include "support/BoxEditor.h"
#include "support/DamagedMovies.h"
#include "support/FaultyFileManager.h"
#include "support/ProbedMovie.h"
#include "support/SyntheticMovie.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;

constexpr uint32_t nonSync = 0x10000;
constexpr uint32_t dependsOnOthers = 0x1000000;

Bytes full(std::string_view type, uint32_t versionAndFlags, std::initializer_list<uint32_t> fields) {
  return box(type, {values({versionAndFlags}), values(fields)});
}
Bytes tfhd(uint32_t flags, std::initializer_list<uint32_t> fields) {
  return full("tfhd", flags, fields);
}
Bytes trun(uint32_t flags, std::initializer_list<uint32_t> fields) {
  return full("trun", flags, fields);
}
Bytes tfdt(uint32_t time) {
  return full("tfdt", 0, {time});
}
Bytes traf(std::initializer_list<Bytes> boxes) {
  return box("traf", boxes);
}

/// The media of each fragment: a sample tells by its first byte where in them it lies.
Bytes numbered(uint32_t size) {
  Bytes bytes;
  for (uint32_t i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(i));
  return bytes;
}

/// Stands in a `moof` for the place of its first media byte, counted from the `moof`.
constexpr uint32_t media = 0x5EED0000;

/// A `moof` and its media.
Bytes fragment(const Bytes& trafs, uint32_t mediaSize = 60) {
  BoxEditor moof(box("moof", {trafs}));
  const auto size = static_cast<uint32_t>(moof.bytes.size());
  for (size_t at = 0; at + 4 <= size; ++at) {
    if (moof.field(at) >> 16 == media >> 16) moof.setField(at, moof.field(at) - media + size + 8);
  }
  return joined({moof.bytes, box("mdat", {numbered(mediaSize)})});
}

/// The same of one `traf` of track 1 with samples of 10 ticks and 2 bytes, from `time` on.
Bytes simpleFragment(uint32_t time, uint32_t count, uint32_t firstFlags = 0) {
  return fragment(traf({tfhd(0x20038, {1, 10, 2, nonSync}), tfdt(time), trun(0x5, {count, media, firstFlags})}));
}

constexpr uint32_t videoScale = 1000, soundScale = 500, movieScale = 1000;

struct Beginning {
  std::vector<std::pair<uint64_t, int64_t>> videoEdits = {};
  std::vector<std::pair<uint64_t, int64_t>> soundEdits = {};
  uint32_t samples = 0;  ///< of the pictures, in the `moov`: 10 ticks each
  std::string_view entry = "avc1";
};

/// `ftyp`, media of the `moov` and `moov`. Track 1 has pictures and two sample entries, track 2 sound.
Bytes beginning(const Beginning& with = {}) {
  SyntheticTrack video{.handler = "vide",
                       .timescale = videoScale,
                       .sampleEntry = visualSampleEntry(with.entry),
                       .edits = with.videoEdits,
                       .samples = with.samples};
  if (with.samples > 0) video.stts = {{with.samples, 10}};
  SyntheticTrack sound{.timescale = soundScale, .edits = with.soundEdits, .trackID = 2};
  BoxEditor editor(syntheticMovie({video, sound}, movieScale));
  const auto stsd = editor.all(sampleTable + "/stsd").front();
  editor.replace(stsd, sampleDescriptionBox({visualSampleEntry(with.entry), visualSampleEntry("avc1")}));
  const auto moov = editor.at("moov");
  editor.insert("moov", moov.end(), box("mvex", {fullBox("trex", {1, 1, 10, 2, 0}), fullBox("trex", {2, 1, 5, 3, 0})}));
  return editor.bytes;
}

/// Each sample of a track: decoding time and composition offset, size, first byte, K for a sync sample, description and
/// dependencies if they are not 1 and 0.
std::string samplesOf(FileManager& files, const Path& path, const char* handler = "vide") {
  const auto file = files.open(path, OpenMode::reading);
  const auto moov = MP4BoxUtils::findTopLevelBox(*file, "moov");
  const auto type = handler == std::string_view("vide") ? MP4TrackType::video : MP4TrackType::audio;
  const auto stbl =
      *MP4BoxUtils::findDescendant(*file, *MP4BoxUtils::findTrack(*file, *moov, type), {"mdia", "minf", "stbl"});
  MP4SampleTableParser table;
  table.parseSampleTable(*file, stbl);
  const SampleTimes times(*file, stbl, table.sampleCount());
  Bytes dependencies(table.sampleCount() + 4);
  if (const auto sdtp = MP4BoxUtils::findChildBox(*file, stbl, "sdtp")) {
    file->seek(sdtp->contentOffset());
    dependencies = file->read(sdtp->contentSize());
  }
  std::vector<std::string> samples;
  for (SampleTimes::Cursor cursor(times, 0); cursor.sample() < table.sampleCount(); cursor.advance()) {
    const SampleInfo info = table.sampleInfo(cursor.sample());
    const SampleTime time = cursor.time();
    file->seek(info.fileOffset);
    const Bytes bytes = file->read(1);
    std::string text = fmt::format("{}{:+} {}:{}", time.decodeTime, time.compositionTime - time.decodeTime, info.size,
                                   bytes.empty() ? 0 : bytes[0]);
    if (info.isSyncSample) text += "K";
    if (const auto description = table.sampleDescriptionIndex(cursor.sample()); description != 1U) {
      text += fmt::format(" entry {}", description.value_or(0));
    }
    if (const uint8_t value = dependencies[cursor.sample() + 4]) text += fmt::format(" depends {:#x}", value);
    samples.push_back(text);
  }
  return fmt::format("{} | {}", fmt::join(samples, ", "), times.duration());
}

TEST_F(FragmentsTest, DefaultsAndPlacesFollowTheStandard) {
  const uint32_t start = static_cast<uint32_t>(beginning().size());
  const struct {
    const char* name;
    Bytes fragments;
    std::string pictures;
    std::string sound = " | 0";
  } rows[] = {
      {"defaults of the trex", fragment(traf({tfhd(0x20000, {1}), trun(0x1, {2, media})})), "0+0 2:0K, 10+0 2:2K | 20"},
      {"tfhd over trex, first_sample_flags for the first alone",
       fragment(
           traf({tfhd(0x2003A, {1, 2, 7, 4, nonSync | dependsOnOthers}), trun(0x5, {3, media, 2 * dependsOnOthers})})),
       "0+0 4:0K entry 2 depends 0x20, 7+0 4:4 entry 2 depends 0x10, 14+0 4:8 entry 2 depends 0x10 | 21"},
      {"trun over tfhd",
       fragment(traf({tfhd(0x20038, {1, 7, 4, nonSync}),
                      trun(0xF01, {2, media, 3, 1, 0, 5, 4, 6, nonSync, static_cast<uint32_t>(-2)})})),
       "0+5 1:0K, 3-2 6:1 | 7"},
      {"signed offsets",
       fragment(traf({tfhd(0x20000, {1}), trun(0x1000801, {2, media, static_cast<uint32_t>(-4), 8})})),
       "0-4 2:0K, 10+8 2:2K | 20"},
      {"a second run behind the first, and one at a place of its own",
       fragment(traf({tfhd(0x20000, {1}), trun(0x1, {2, media}), trun(0, {1}), trun(0x1, {1, media + 20})})),
       "0+0 2:0K, 10+0 2:2K, 20+0 2:4K, 30+0 2:20K | 40"},
      {"a base in the file", fragment(traf({tfhd(0x1, {1, 0, start + media + 9}), trun(0x1, {1, 3})})),
       "0+0 2:12K | 10"},
      {"a negative offset",
       fragment(traf({tfhd(0x1, {1, 0, start + media + 9}), trun(0x1, {1, static_cast<uint32_t>(-4)})})),
       "0+0 2:5K | 10"},
      {"a later traf counts from the end of the data of the one ahead of it",
       fragment(joined({traf({tfhd(0, {1}), trun(0x1, {2, media + 1})}), traf({tfhd(0, {2}), trun(0x1, {2, 3})})})),
       "0+0 2:1K, 10+0 2:3K | 20", "0+0 3:8K, 5+0 3:11K | 10"},
      {"or from the moof",
       fragment(joined({traf({tfhd(0x20000, {1}), trun(0x1, {2, media})}),
                        traf({tfhd(0x20000, {2}), trun(0x1, {2, media + 30})})})),
       "0+0 2:0K, 10+0 2:2K | 20", "0+0 3:30K, 5+0 3:33K | 10"},
      {"an empty traf",
       fragment(joined({traf({tfhd(0x30000, {2}), tfdt(77)}), traf({tfhd(0x20000, {1}), trun(0x1, {1, media})})})),
       "0+0 2:0K | 10"},
      {"samples of several fragments that share bytes",
       joined({simpleFragment(0, 2), fragment(traf({tfhd(0x1, {1, 0, start}), trun(0x1, {1, 0}), trun(0x1, {1, 0})}))}),
       "0+0 2:0K, 10+0 2:2, 20+0 2:0K, 30+0 2:0K | 40"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(join(joined({beginning(), row.fragments})), "");
    EXPECT_EQ(samplesOf(files_, file_), row.pictures);
    EXPECT_EQ(samplesOf(files_, file_, "soun"), row.sound);
  }
}

TEST_F(FragmentsTest, TheTimesOfFragmentsHold) {
  const std::string three = "0+0 2:0K, 10+0 2:2, 20+0 2:4";
  const struct {
    const char* name;
    Bytes fragments;
    std::string notes;
    std::string samples;
  } rows[] = {
      {"in a row", joined({simpleFragment(0, 3), simpleFragment(30, 1)}), "", three + ", 30+0 2:0K | 40"},
      {"from a late time on", joined({simpleFragment(1000, 3), simpleFragment(1030, 1)}), "",
       three + ", 30+0 2:0K | 40"},
      {"a gap", joined({simpleFragment(0, 3), simpleFragment(530, 1)}),
       "Track 1 has 1 gap of 0.500 s in all between its fragments", three + ", 530+0 2:0K | 540"},
      {"less than a sample back", joined({simpleFragment(0, 3), simpleFragment(24, 1, nonSync)}), "",
       three + ", 24+0 2:0 | 34"},
      {"a later run wins", joined({simpleFragment(0, 3), simpleFragment(15, 3)}),
       "1 sample of track 1 is there twice; the later one counts",
       "0+0 2:0K, 10+0 2:2, 15+0 2:0K, 25+0 2:2, 35+0 2:4 | 45"},
      {"all anew", joined({simpleFragment(0, 3), simpleFragment(0, 4)}),
       "3 samples of track 1 are there twice; the later ones count", three + ", 30+0 2:6 | 40"},
      {"back to a sample that needs others", joined({simpleFragment(0, 3), simpleFragment(10, 3, nonSync)}),
       "refused: The time of track 1 goes back by 0.020 s, to a sample that needs others", ""},
      {"back to less than was there", joined({simpleFragment(0, 9), simpleFragment(0, 2)}),
       "refused: The time of track 1 goes back by 0.070 s, to samples that do not go on as long", ""},
      {"a gap beyond 32 bits",
       joined({simpleFragment(0, 3), simpleFragment(UINT32_MAX, 1),
               fragment(
                   traf({tfhd(0x20038, {1, 10, 2, nonSync}), full("tfdt", 1U << 24, {3, 0}), trun(0x1, {1, media})}))}),
       "refused: Track 1 has a gap of 8589935 s, which no sample table can say", ""},
      {"an impossible time",
       fragment(traf({tfhd(0x20000, {1}), full("tfdt", 1U << 24, {1U << 31, 0}), trun(0x1, {1, media})})),
       "refused: Track 1 begins at an impossible time", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(join(joined({beginning(), row.fragments})), row.notes);
    if (row.samples.empty()) continue;
    EXPECT_EQ(samplesOf(files_, file_), row.samples);
  }
}

/// Ten pictures of 10 ticks from `videoTime` on, composed 20 ticks later, and ten packets of 5 ticks (10 ms) from
/// `soundTime` on, composed so much later.
Bytes both(uint32_t videoTime, uint32_t soundTime, int32_t soundOffset = 0) {
  const auto run = [](uint32_t place, int32_t offset) {
    Bytes entries;
    for (int i = 0; i < 10; ++i) ByteWriter(entries).uint32(static_cast<uint32_t>(offset));
    return box("trun", {values({0x1000801, 10, place}), entries});
  };
  return fragment(joined({traf({tfhd(0x20000, {1}), tfdt(videoTime), run(media, 20)}),
                          traf({tfhd(0x20000, {2}), tfdt(soundTime), run(media + 30, soundOffset)})}));
}

TEST_F(FragmentsTest, EditsShowTheSameAtTheSameTime) {
  constexpr uint64_t toEnd = 0;
  const struct {
    const char* name;
    Beginning start;
    Bytes fragments;
    std::string video;
    std::string sound;
    uint32_t movie;  ///< duration
    std::string refusal = {};
  } rows[] = {
      {"no lists, the sound at 0", {}, both(0, 0), "", "", 100},
      {"no lists, the pictures late", {}, both(1000, 0), "1020 from -1, 100 from 20", "", 1120},
      {"no lists, both late", {}, both(1000, 500), "20 from -1, 100 from 20", "", 120},
      {"no lists, the sound late", {}, both(0, 500), "100 from 20", "980 from -1, 100 from 0", 1080},
      {"lists to the end", {{{toEnd, 20}}, {{toEnd, 2}}}, both(0, 0), "100 from 20", "96 from 2", 100},
      {"sound is shown when it is decoded", Beginning{{{toEnd, 20}}, {{toEnd, 2}}}, both(0, 0, -4), "100 from 20",
       "96 from 2", 100},
      {"lists from a late time on", Beginning{{{toEnd, 1020}}, {{toEnd, 502}}}, both(1000, 500), "100 from 20",
       "96 from 2", 100},
      {"an empty edit that both have", Beginning{{{80, -1}, {toEnd, 20}}, {{50, -1}, {toEnd, 0}}}, both(0, 0),
       "30 from -1, 100 from 20", "100 from 0", 130},
      {"segments are missing ahead", Beginning{{{toEnd, 20}}, {{toEnd, 0}}}, both(2000, 990), "20 from -1, 100 from 20",
       "100 from 0", 120},
      {"a length that is true", {{{60, 20}}, {}}, both(0, 0), "60 from 20", "", 100},
      {"a length beyond the media", {{{6000, 20}}, {}}, both(0, 0), "100 from 20", "", 100},
      {"two parts", {{{20, 20}, {30, -1}, {toEnd, 70}}, {}}, both(0, 0), "20 from 20, 30 from -1, 50 from 70", "", 100},
      {"the samples of the moov alone", {{{30, 0}}, {}, 3}, both(30, 0), "150 from 0", "", 150},
      {"less than the samples of the moov", Beginning{{{15, 0}}, {}, 3}, both(30, 0), "", "", 0,
       "refused: The edit list of track 1 ends amid the samples, and does not say which it shows"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(join(joined({beginning(row.start), row.fragments})), row.refusal);
    if (!row.refusal.empty()) continue;
    BoxTree moov(BoxEditor(written()).get("moov"));
    EXPECT_EQ(editsOf(*moov.track("vide")), row.video);
    EXPECT_EQ(editsOf(*moov.track("soun")), row.sound);
    EXPECT_EQ(readUInt32(moov.at("mvhd").fields, 16), row.movie);
    EXPECT_EQ(readUInt32(moov.track("soun")->at("mdia/mdhd").fields, 16), 50U);
  }
}

TEST_F(FragmentsTest, WhatCannotBecomePlainStaysAsItIs) {
  const auto withBox = [](const Bytes& extra) {
    return fragment(traf({tfhd(0x20000, {1}), trun(0x1, {1, media}), extra}));
  };
  const auto ofRun = [](const Bytes& run) { return fragment(traf({tfhd(0x20000, {1}), run})); };
  const Bytes good = simpleFragment(0, 2);
  Bytes again = tfhd(0x20010, {1, 1});
  for (int i = 0; i < 60; ++i) again = joined({again, trun(0x1, {60, media})});
  const Bytes piff = bytesFrom("A2394F52 5A9B4F14 A2446C42 7C648DF4");
  BoxEditor otherScale(beginning());
  otherScale.setField(otherScale.at("moov/trak/mdia/mdhd").offset + 20, 999);
  BoxEditor shared(beginning({.samples = 3}));
  for (const Bytes& table :
       {fullBox("stsz", {1, 10000}), fullBox("stsc", {1, 1, 100, 1}), box("stco", {values({0, 100}), Bytes(400)})}) {
    shared.replace(shared.at(sampleTable + "/" + std::string(textOf(ByteView(table).subspan(4, 4)))), table);
  }
  const std::string encrypted = "refused: The movie is encrypted", stays = "The movie stays in fragments: the moof at ";
  const struct {
    const char* name;
    Bytes movie;
    std::string words;
  } rows[] = {
      {"senc", joined({beginning(), joined({good, withBox(fullBox("senc", {0}))})}), encrypted + " (its fragments"},
      {"saiz", joined({beginning(), withBox(fullBox("saiz", {0}))}), encrypted},
      {"the older senc", joined({beginning(), withBox(box("uuid", {piff}))}), encrypted},
      {"seig", joined({beginning(), withBox(box("sbgp", {values({0}), bytesFrom("'seig'"), values({1, 1, 1})}))}),
       encrypted + " (its samples are in groups"},
      {"encv", joined({beginning({.entry = "encv"}), good}), encrypted + " (encv)"},
      {"a second moov with other entries", joined({beginning(), joined({good, beginning({.entry = "hvc1"}), good})}),
       "refused: A second movie"},
      {"a second moov with another timescale", joined({beginning(), joined({good, otherScale.bytes, good})}),
       "refused: A second movie"},
      {"an entry that is not there",
       joined({beginning(), fragment(traf({tfhd(0x20002, {1, 3}), trun(0x1, {1, media})}))}),
       "refused: A sample of track 1 needs sample entry 3 of 2"},
      {"no sample", beginning(), "refused: No sample"},
      {"a trun that ends before its samples", joined({beginning(), ofRun(trun(0x200, {1000, 1, 2, 3}))}),
       stays + "829: a trun promises 1000 samples and ends before them"},
      {"a tfhd without its fields", joined({beginning(), fragment(traf({box("tfhd")}))}), stays},
      {"a box that overruns", joined({beginning(), withBox(boxClaiming(99, "abcd"))}), stays},
      {"the same bytes again and again", joined({beginning(), fragment(traf({again}))}), stays},
      {"the same in the moov", joined({shared.bytes, simpleFragment(100000, 2)}),
       "The movie stays in fragments: more samples are promised than the file can hold"},
      {"a huge ftyp", joined({box("ftyp", {Bytes(17 << 20)}), beginning(), good}),
       "The movie stays in fragments: the ftyp at 0 has 17825800 bytes"},
      {"behind the file, with more behind", joined({beginning(), joined({ofRun(trun(0x1, {1, 9999})), good})}), stays},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string words = join(row.movie);
    EXPECT_TRUE(words.starts_with(row.words)) << words;
    EXPECT_EQ(written(), row.movie);
  }
}

TEST_F(FragmentsTest, WhatIsNotAboutFragmentsSurvives) {
  const Bytes unknown = box("abcd", {numbered(20)}), uuid = box("uuid", {numbered(30)});
  BoxEditor start(joined({box("ftyp", {values({1, 2})}), beginning()}));
  start.insert("moov", start.at("moov/trak").offset, unknown);
  start.insert("moov/trak/mdia/minf/stbl", start.at(sampleTable + "/stts").offset, unknown);
  const auto group = [](std::string_view type, uint32_t index) {
    return box("sbgp", {values({0}), Bytes(type.begin(), type.end()), values({1, 1, index})});
  };
  const Bytes local = box("sgpd", {values({1U << 24}), bytesFrom("'roll'"), values({2, 1}), bytesFrom("FFFF")});
  const Bytes subs = fullBox("subs", {0});
  const Bytes live = box("uuid", {bytesFrom("6D1D9B05 42D544E6 80E2141D AFF757B2"), numbered(20)});
  const Bytes grouped = fragment(traf({tfhd(0x20000, {2}), trun(0x1, {2, media}), local, group("roll", 0x10001),
                                       group("what", 1), subs, live, unknown, box("free")}));
  const Bytes movie = joined({start.bytes, box("styp"), box("sidx"), uuid, box("prft"), box("emsg"),
                              simpleFragment(0, 2), box("emsg"), grouped, grouped, box("mfra"), Bytes(50)});
  EXPECT_EQ(join(movie),
            "2 event messages (emsg) are left out; Sample groups of track 2 of the kind 'what' are left out; What the "
            "fragments of track 2 say of its samples in boxes of the kind 'abcd', 'subs' is left out");
  const BoxEditor result(written());
  std::vector<std::string> types;
  for (const auto& [type, bytes] : topLevel(result.bytes)) types.push_back(type);
  EXPECT_THAT(types, ElementsAre("ftyp", "uuid", "moov", "mdat"));
  EXPECT_EQ(result.get("uuid"), uuid);
  EXPECT_EQ(result.get("moov/abcd"), unknown);
  EXPECT_EQ(result.get(sampleTable + "/abcd"), unknown);
  EXPECT_TRUE(result.all("moov/mvex").empty());
  EXPECT_EQ(result.get(sampleTable + "/sgpd"), local);
  EXPECT_EQ(result.get(sampleTable + "/sbgp"),
            box("sbgp", {values({0}), bytesFrom("'roll'"), values({3, 1, 1, 1, 0, 1, 1})}));
  EXPECT_FALSE(outcome_.isPartly);
}

TEST_F(FragmentsTest, WhatIsTooLargeToKeepIsToldOnce) {
  const Bytes large = box("abcd", {Bytes(16 << 20)});
  const Bytes movie = joined({beginning(), joined({simpleFragment(0, 2), large, large, large})});
  EXPECT_EQ(join(movie), fmt::format("The abcd at {} (16777224 bytes) and 2 more boxes are left out",
                                     movie.size() - 3 * large.size()));
}

/// A box whose header cannot be read is not the end of the movie.
TEST_F(FragmentsTest, AReadThatFailsEndsTheRunAndCostsNoSample) {
  const Bytes whole = joined({beginning(), simpleFragment(0, 2), simpleFragment(20, 2), simpleFragment(40, 2)});
  BoxEditor cut(syntheticMovie({{.stts = {{9, 10}}, .samples = 9}}));
  cut.bytes = MovieLayout(joined({cut.bytes, box("ftyp")})).moovAhead();
  cut.bytes.pop_back();
  for (const Bytes& movie : {whole, cut.bytes}) {
    FaultyFileManager faulty(files_);
    const uint64_t reads = faulty.sweep({.among = {FileOperation::read}}, [&](uint64_t call) {
      SCOPED_TRACE(call);
      write(movie);
      RunRecorder recorder;
      ProcessingRun run = recorder.runOn(faulty, file_);
      const std::string failure = failureOf([&] { FragmentsStep().run(run); });
      EXPECT_EQ(failure.find("fault of a test") != std::string::npos, faulty.fired()) << failure;
      EXPECT_EQ(written() == movie, faulty.fired());
      EXPECT_TRUE(run.state.tempFiles.empty());
    });
    EXPECT_GT(reads, 20U);
  }
}

/// Headers of version 0 get long times if the durations need them.
TEST_F(FragmentsTest, LongDurationsAreTold) {
  Bytes fragments;
  for (uint32_t i = 0; i < 3; ++i) {
    fragments = joined({fragments, fragment(traf({tfhd(0x20008, {1, 0xF0000000}), trun(0x1, {1, media})}))});
  }
  EXPECT_EQ(join(joined({beginning(), fragments})), "");
  const auto presentation = Presentation::read(files_, file_);
  constexpr int64_t duration = 3 * int64_t{0xF0000000};
  EXPECT_EQ(presentation.tracks()[0].mediaEnd, duration);
  EXPECT_EQ(presentation.tracks()[0].trackID, 1U);
  const BoxEditor result(written());
  const auto long64 = [&](size_t at) { return uint64_t{result.field(at)} << 32 | result.field(at + 4); };
  EXPECT_EQ(result.field(result.at("moov/mvhd").offset + 28), movieScale);
  EXPECT_EQ(long64(result.at("moov/mvhd").offset + 32), static_cast<uint64_t>(duration));
  EXPECT_EQ(long64(result.at("moov/trak/tkhd").offset + 36), static_cast<uint64_t>(duration));
  EXPECT_EQ(long64(result.at("moov/trak/mdia/mdhd").offset + 32), static_cast<uint64_t>(duration));
}

}  // namespace
}  // namespace tarn::test
