#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <memory>

#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/DamagedMovies.h"
#include "support/FileTest.h"
#include "support/MediaMaker.h"
#include "support/ParameterSetBuilder.h"
#include "support/TarnProcess.h"

/// Files that somebody has made to do harm: real movies of ffmpeg, each with a small edit. `tarn inspect` and `tarn
/// repair` take them with little memory and in little time, and say in words what they make of them.
namespace tarn::test {
namespace {

constexpr uint32_t most = UINT32_MAX;
const std::string trak = "moov/trak/", mdhd = trak + "mdia/mdhd", elst = trak + "edts/elst", stbl = sampleTable + "/",
                  stts = stbl + "stts", ctts = stbl + "ctts", stsc = stbl + "stsc", stsz = stbl + "stsz",
                  stco = stbl + "stco", stss = stbl + "stss", stsd = stbl + "stsd", avcC = stsd + "/avc1/avcC",
                  esds = stsd + "/mp4a/esds";

// --- Edits ---

using Edit = std::function<void(BoxEditor&)>;

/// The first box at the end of a path, or that of the sound.
struct Place {
  Place(const char* where) : path(where) {}
  Place(const std::string& where, size_t which = 0) : path(where), number(which) {}

  BoxEditor::Found in(const BoxEditor& movie) const { return movie.all(path).at(number); }

  std::string path;
  size_t number = 0;
};
Place ofSound(const std::string& path) {
  return {path, 1};
}

/// Puts these fields over what stands in a box, from an offset in it on.
Edit set(const Place& place, size_t offset, const Bytes& fields) {
  return [=](BoxEditor& movie) {
    std::ranges::copy(fields, movie.bytes.begin() + static_cast<ptrdiff_t>(place.in(movie).offset + offset));
  };
}
Edit size(const Place& place, uint32_t size) {
  return set(place, 0, values({size}));
}
Edit put(const Place& place, const Bytes& box) {
  return [=](BoxEditor& movie) { movie.replace(place.in(movie), box); };
}
/// As the last one of a box.
Edit into(const Place& place, const Bytes& box) {
  return [=](BoxEditor& movie) { movie.insert(place.path, movie.at(place.path).end(), box); };
}
Edit atEnd(const Bytes& boxes) {
  return [=](BoxEditor& movie) { movie.bytes.insert(movie.bytes.end(), boxes.begin(), boxes.end()); };
}
Edit ahead(const Bytes& boxes) {
  return [=](BoxEditor& movie) { movie.bytes.insert(movie.bytes.begin(), boxes.begin(), boxes.end()); };
}
Edit all(const std::vector<Edit>& edits) {
  return [=](BoxEditor& movie) {
    for (const Edit& edit : edits) edit(movie);
  };
}
Edit rename(const Place& place, std::string_view type) {
  return set(place, 4, Bytes(type.begin(), type.end()));
}
Edit longSize(const Place& place, uint64_t length) {
  return all(
      {size(place, 1), set(place, 8, values({static_cast<uint32_t>(length >> 32), static_cast<uint32_t>(length)}))});
}

// --- Bombs ---

Bytes times(size_t count, const Bytes& piece) {
  Bytes all;
  all.reserve(count * piece.size());
  for (size_t i = 0; i < count; ++i) all.insert(all.end(), piece.begin(), piece.end());
  return all;
}

/// Boxes of one type, one in the other.
Bytes nested(std::string_view type, uint32_t depth, const Bytes& fields = {}) {
  Bytes all;
  const auto step = static_cast<uint32_t>(8 + fields.size());
  for (uint32_t left = depth; left > 0; --left) {
    ByteWriter(all).uint32(left * step).text(type).bytes(fields);
  }
  return all;
}

/// A table of equal rows.
Bytes table(std::string_view type, uint32_t rows, const Bytes& row) {
  return box(type, {values({0, rows}), times(rows, row)});
}
Bytes shown(uint32_t rows, uint32_t duration, uint32_t rate = 0x10000) {
  return table("elst", rows, values({duration, 0, rate}));
}

/// Metadata in a movie.
Edit told(const Bytes& boxes) {
  return into("moov", box("udta", {boxes}));
}

/// A fragment of one track of these runs.
Bytes fragment(const Bytes& runs, const Bytes& header = values({0x020000, 1})) {
  return box("moof", {fullBox("mfhd", {1}), box("traf", {box("tfhd", {header}), runs})});
}

// --- How they are taken ---

struct Hostile {
  std::string name;
  Edit edit;
  uint64_t length = 0;  ///< of the file, if zeros follow that take no room on the disk
};

/// What is said of a file by `inspect` or `repair`, and their exit codes.
struct Said {
  std::string words;
  int inspected = 0;
  int repaired = 0;
};

class HostileFiles : public FileTest {
 protected:
  void take(const char* movie, const Said& said, const std::vector<Hostile>& rows) {
    for (const Hostile& row : rows) {
      SCOPED_TRACE(row.name);
      BoxEditor editor(damagedMovie(movie));
      row.edit(editor);
      write(editor.bytes);
      if (row.length > 0) std::filesystem::resize_file(file_, row.length);
      take(said);
    }
  }

 private:
  void take(const Said& said) {
    const auto facts = files_.attributes(file_);
    const TempDirectory place;
    const Path out = directory_ / "out.mp4";
    const auto inspection = start({"inspect", file_}, place.path());
    const auto repair = start({"repair", file_, "-o", out}, place.path());
    const int inspected = inspection->wait(), repaired = repair->wait();
    const std::string told = inspection->output() + inspection->errors() + repair->output() + repair->errors();
    EXPECT_THAT(told, testing::HasSubstr(said.words));
    EXPECT_EQ(inspected, said.inspected);
    EXPECT_EQ(repaired, said.repaired);

    EXPECT_EQ(files_.attributes(file_), facts);
    const bool isKept = repaired == 0 || repaired == 5;
    EXPECT_EQ(files_.contentsOfDirectory(directory_.path()).size(), isKept ? 2U : 1U) << "and nothing beside them";
    const bool isChanged = isKept && runProcess({"cmp", "-s", file_, out}).exitCode != 0;
    EXPECT_EQ(inspected == 3, isChanged);
    if (isChanged) {
      EXPECT_THAT(runProcess({"timeout", "60", "ffprobe", "-v", "quiet", "-count_packets", "-show_entries",
                              "stream=codec_name,nb_read_packets", "-of", "csv=p=0", out})
                      .output,
                  testing::HasSubstr(",50\n"))
          << "as many pictures as each of the movies has";
    }
    std::filesystem::remove(out);
  }

  /// `tarn` with as much memory as the file's size explains. It is killed if it takes a minute.
  std::unique_ptr<ChildProgram> start(const std::vector<std::string>& arguments, const Path& place) {
    std::vector<std::string> command{"/usr/bin/timeout", "-s", "KILL", "60"};
#ifndef TARN_SANITIZED
    const auto memory = (128 << 20) + files_.attributes(file_)->size * 5 / 2;
    command.insert(command.end(), {"/usr/bin/prlimit", fmt::format("--data={}", memory)});
#endif
    for (const std::string& word : tarnCommand(directory_ / "home", arguments)) command.push_back(word);
    return std::make_unique<ChildProgram>(command, place);
  }
};

const char *const plain = "B-frames and sound", *const pieces = "fragments", *const bare = "avc3 without avcC",
                  *const hevc = "hev1 with an empty hvcC", *const foreign = "AC-3 sound";
const Said healthy{"Nothing to repair"}, noMoov{"a movie whose moov, the index of its media, is missing", 4, 4},
    noEnd{"a movie without its end", 4, 4}, onlyStart{"a movie of which only the start is there", 4, 4},
    noSample{"a movie without a single sample", 4, 4}, notThere{"A part of the video is not in the file", 4, 5},
    noSets{"nor its pictures hold what a decoder needs"}, setsInside{"sets stand only in the bitstream", 3},
    showsNothing{"the edit list of the video shows nothing of it", 3}, joins{"the movie is in fragments", 3},
    tooMany{"more samples are promised than the file can hold"}, transcodes{", which many players do not take", 3};

TEST_F(HostileFiles, SizesThatLie) {
  take(plain, noMoov,
       {{"MdatOf0InTheMiddle", size("mdat", 0)},
        {"MoovThatWraps", longSize("moov", UINT64_MAX - 3)},
        {"MoovSmallerThanItsHeader", longSize("moov", 9)}});
  take(plain, noEnd, {{"MdatBeyondTheFile", longSize("mdat", uint64_t{1} << 62)}});
  take(plain, healthy,
       {{"MoovOf0InTheMiddle", all({size("moov", 0), atEnd(box("free", {Bytes(90)}))})},
        {"StblOverItsParents", size(sampleTable, 0x7FFFFFFF)}});
  take(plain, noSample, {{"TrakOf1", size("moov/trak", 1)}});
  take(plain, {"stsz box not found"}, {{"StblOf7", size(sampleTable, 7)}});
  take(plain, onlyStart, {{"FtypOf64MiB", size("ftyp", 1 << 26), 1 << 26}});
  take(plain, {"that its index (moov) promises"},
       {{"MoovOf4GiB", size("moov", most)}, {"MoovOf64MiB", size("moov", (1 << 26) + 1), 1 << 26}});
}

TEST_F(HostileFiles, NestingAndSelfReference) {
  const Bytes moov = BoxEditor(damagedMovie(plain)).get("moov"), video = BoxEditor(moov).get("moov/trak");
  const auto place = static_cast<uint32_t>(BoxEditor(damagedMovie(plain)).at("moov").offset);
  take(plain, {"Track 3: mdia box not found"},
       {{"TraksInTraks", into("moov", nested("trak", 100'000))}, {"Traks", into("moov", times(70'000, box("trak")))}});
  take(plain, healthy,
       {{"MetaInMeta", told(nested("meta", 100'000, Bytes(4)))},
        {"MoovInMoov", into("moov", moov)},
        {"ManyTracks", into("moov", times(500, video))},
        {"AllSamplesAtOnePlace", put(stco, table("stco", 50, values({48})))}});
  take(plain, noSample, {{"MoovsInMoovs", ahead(nested("moov", 100'000))}});
  take(pieces, joins, {{"MoofsInMoofs", atEnd(nested("moof", 100'000))}});
  take(plain, noSets, {{"EntriesInEntries", put(stsd, sampleDescriptionBox({nested("avc1", 20'000, Bytes(78))}))}});
  take(plain, {"the file has several indexes (moov)"}, {{"TwoMoovs", atEnd(moov)}});
  take(plain, onlyStart, {{"AMillionBoxes", ahead(times(1'000'000, box("free")))}});
  take(plain, notThere,
       {{"ChunksInTheMoov", put(stco, table("stco", 50, values({place})))},
        {"ChunksBehindTheFile", put(stco, table("co64", 50, values({0x7FFFFFFF, most})))}});
  take(plain, {"more bytes than the file holds"}, {{"OverlappingSamples", put(stsz, fullBox("stsz", {4000, 50}))}});
  take(plain, {"more bytes than the file holds", 4, 5}, {{"SamplesOf4GiB", put(stsz, fullBox("stsz", {most, most}))}});
}

TEST_F(HostileFiles, CountsThatLie) {
  for (const std::string& path : {elst, stts, ctts, stsc, stsz, stco, stss}) {
    const std::string type = path.substr(path.size() - 4);
    take(plain, {"the " + type + " at "}, {{type, set(path, type == "stsz" ? 16 : 12, values({most}))}});
  }
  take(plain, {"of 4294967295 sample entries 1 can be read"}, {{"stsd", set(stsd, 12, values({most}))}});
}

TEST_F(HostileFiles, BombsInTheTables) {
  take(plain, healthy,
       {{"SamplesOfNoBytes", put(stsz, fullBox("stsz", {0, 0}))},
        {"AMillionOfThem", all({put(stsz, box("stsz", {values({0, 0, 1'000'000}), Bytes(4'000'000)})),
                                put(stsc, fullBox("stsc", {1, 1, 1'000'000, 1}))})},
        {"SttsOfYears", put(stts, fullBox("stts", {1, 50, most}))},
        {"SttsOfNoTime", put(stts, fullBox("stts", {1, 50, 0}))},
        {"CttsOfExtremes", put(ctts, table("ctts", 25, values({1, 0x80000000})))},
        {"CttsRowsOfNothing", put(ctts, table("ctts", 500'000, values({0, 1})))},
        {"StscOf4Gi", put(stsc, fullBox("stsc", {1, 1, most, 1}))},
        {"AMillionSyncSamples", put(stss, table("stss", 1'000'000, values({1})))},
        {"EditsThatShowAll", put(elst, shown(50'000, 2000))},
        {"SbgpRowsOfNothing",
         into(sampleTable, box("sbgp", {bytesFrom("00000000 'roll' 0007A120"), times(500'000, values({0, 1}))}))},
        {"SgpdOf4Gi", into(sampleTable, box("sgpd", {bytesFrom("01000000 'roll' 00000000 FFFFFFFF")}))},
        {"SaizOf4Gi", all({into(sampleTable, box("saiz", {bytesFrom("00000000 01 FFFFFFFF")})),
                           into(sampleTable, fullBox("saio", {most, 1}))})}});
  take("cut off", {"more samples than the file has bytes", 4, 5},
       {{"SharedBytes", all({put(stsz, fullBox("stsz", {1, 2'000'000})), put(stsc, fullBox("stsc", {1, 1, 20'000, 1})),
                             put(stco, table("stco", 100, values({48})))})}});
  take(plain, {"stts names no sample"}, {{"SttsRowsOfNothing", put(stts, table("stts", 500'000, values({0, 1})))}});
  take(plain, {"is beyond repair"},
       {{"SoundWithAGapOfADay", put(ofSound(stts), fullBox("stts", {3, 40, 1024, 1, most, 55, 1024}))},
        {"SoundOfGaps", put(ofSound(stts), fullBox("stts", {1, 96, 0x7FFFFFFF}))},
        {"SoundOf1Hz", set(ofSound(mdhd), 20, values({1}))}});
  take(plain, {"stsc entries are out of order"},
       {{"StscOutOfOrder", put(stsc, fullBox("stsc", {3, 1, 1, 1, most, 1, 1, 2, 1, 1}))}});
  take(plain, {"stsc names sample entry 4294967295, and stsd holds 1", 4, 5},
       {{"StscOfAnUnknownEntry", put(stsc, fullBox("stsc", {1, 1, 1, most}))}});
  take(plain, {"stss names sample 0"}, {{"StssOutOfOrder", put(stss, fullBox("stss", {5, 40, 1, 0, most, 40}))}});
  take(plain, showsNothing,
       {{"ManyEdits", put(elst, shown(250'000, 1))},
        {"EditsBackwards", put(elst, shown(100, 2000, 0x80000000))},
        {"TicksOf4Gi", set("moov/mvhd", 20, values({most, most}))}});
  take(plain, {"the edit list of the video begins at an impossible time", 3},
       {{"EditsOf2To63", put(elst, box("elst", {values({1U << 24, 2, 0x7FFFFFFF, most, 0x7FFFFFFF, most, 0x10000}),
                                                values({most, most, 0x80000000, 0, 0x10000})}))}});
}

TEST_F(HostileFiles, SoundThatIsConverted) {
  take(foreign, {"is beyond repair"},
       {{"AGapOfADay", all({rename(ofSound(trak + "edts"), "free"),
                            put(ofSound(stts), fullBox("stts", {3, 20, 1536, 1, 24 * 3600 * 48000U, 41, 1536}))})},
        {"GapsOfAMonth",
         all({rename(ofSound(trak + "edts"), "free"), put(ofSound(stts), fullBox("stts", {1, 63, 0x7FFFFFFF}))})}});
  take(foreign, transcodes,
       {{"AHiddenGapOfADay", put(ofSound(stts), fullBox("stts", {3, 20, 1536, 1, 24 * 3600 * 48000U, 41, 1536}))},
        {"Edits", put(ofSound(elst), shown(50'000, 2000))},
        {"ALateStart", put(ofSound(elst), table("elst", 2, values({0x7FFFFFFF, most, 0x10000, 2000, 0, 0x10000})))},
        {"NoRateAndManyChannels", set(stsd + "/ac-3", 24, values({most, 0, 0}))},
        {"AsPCM", rename(stsd + "/ac-3", "sowt")}});
  take(foreign, {"its codec \"alac\" cannot be decoded"}, {{"AsALAC", rename(stsd + "/ac-3", "alac")}});
}

TEST_F(HostileFiles, HeadersAndMetadata) {
  take(plain, {"Track 1: the track has no timescale"}, {{"TimescaleOf0", set(mdhd, 20, values({0}))}});
  take(plain, {"The movie has no timescale"},
       {{"MovieTimescaleOf0", set("moov/mvhd", 20, values({0}))},
        {"CompressedMoov", put("moov", box("moov", {box("cmov", {box("cmvd", {values({most}), Bytes(99, 7)})})}))}});
  const Bytes title = box("\xA9nam", {box("data", {Bytes(9)})});
  take(plain, healthy,
       {{"TimescaleOf4Gi", set(mdhd, 20, values({most}))},
        {"DurationOf2To63", put(mdhd, box("mdhd", {values({1U << 24, 0, 0, 0, 0, 12800, 0x7FFFFFFF, most, 0})}))},
        {"MatrixAndSize", set(trak + "tkhd", 48, Bytes(44, 0xFF))},
        {"Name", told(times(3'000'000, bytesFrom("'name'")))},
        {"Titles", told(box("meta", {Bytes(4), handlerBox("mdir"), box("ilst", {times(200'000, title)})}))},
        {"DataOf4GiB", told(box("meta", {Bytes(4), box("ilst", {box("\xA9nam", {boxClaiming(most, "data")})})}))},
        {"Iloc", into("moov", box("meta", {Bytes(4), box("iloc", {bytesFrom("01000000 0000 FFFF"),
                                                                  times(65'535, bytesFrom("00010000 0000FFFF"))})}))}});
}

TEST_F(HostileFiles, ConfigurationsAndBitstreams) {
  const Bytes huge = sampleOf({AVCSPS{.widthInMbs = 1 << 20, .heightInMapUnits = 1 << 20}.bytes()}, 2);
  take(plain, noSets,
       {{"AvcCOfLies", set(avcC, 13, bytesFrom("FF FFFF"))},
        {"AvcCOfEmptySets", put(avcC, box("avcC", {bytesFrom("01 64000A FF FF"), Bytes(62), {255}, Bytes(510)}))},
        {"PictureOf4Gi", put(avcC, box("avcC", {bytesFrom("01 64000A FF E1"), huge, bytesFrom("01 0004 68CE3C80")}))}});
  take(hevc, setsInside,
       {{"HvcCOfLies", put(stsd + "/hev1/free", box("hvcC", {Bytes(22, 1), bytesFrom("FF A0 FFFF FFFF")}))}});
  take(plain, healthy,
       {{"PictureOf65535", set(stsd + "/avc1", 32, values({most}))},
        {"EsdsOfLies", set(esds, 12, bytesFrom("03 FFFFFF7F 0000 00 04 FFFFFF7F"))},
        {"EsdsInEsds", put(esds, box("esds", {values({0}), times(100'000, bytesFrom("04 FFFFFF7F"))}))},
        {"ManyChannels", set(stsd + "/mp4a", 24, values({most, 0, most}))}});
  take(plain, {"of 100000 sample entries 1000 can be read"},
       {{"Entries", put(stsd, table("stsd", 100'000, visualSampleEntry("avc1")))}});
  take(bare, setsInside,
       {{"UnitsOf4GiB", set("mdat", 8, Bytes(20'000, 0xFF))}, {"UnitsOfNoBytes", set("mdat", 8, Bytes(5'000))}});
}

TEST_F(HostileFiles, Fragments) {
  take(pieces, joins,
       {{"SidxThatLoops",
         atEnd(box("sidx", {values({0, 1, 1000, 0, 0, 65'535}), times(65'535, values({0x80000000, 0, 0}))}))},
        {"MfraOfItself", atEnd(box("mfra", {fullBox("tfra", {1, 0, most, 0, 0}), fullBox("mfro", {0})}))},
        {"NoSamples", atEnd(times(100'000, fragment({})))},
        {"EmptyRuns", atEnd(fragment(times(200'000, fullBox("trun", {0}))))},
        {"Tracks", atEnd(box("moof", {times(100'000, box("traf", {box("tfhd", {values({0x020000, 1})})}))}))}});
  take(pieces, tooMany,
       {{"RunOf4Gi", atEnd(fragment(fullBox("trun", {most})))},
        {"Runs", atEnd(fragment(times(10'000, fullBox("trun", {1'000'000})), values({0x020010, 1, 0})))}});
  take(pieces, {"2147483647 pictures lost", 3, 5},
       {{"RunOf2GiOfOneByte", atEnd(fragment(fullBox("trun", {0x7FFFFFFF}), values({0x020018, 1, 0, 1})))}});
  take(pieces, {"1 picture lost", 3, 5},
       {{"BaseOf2To63", atEnd(fragment(fullBox("trun", {1}), values({1, 1, 0x7FFFFFFF, most})))}});
  take(pieces, {"samples lie before the file's first byte"},
       {{"RunFarAhead", atEnd(fragment(box("trun", {values({1, 1, 0x80000000})})))}});
  take(pieces, {"Track 1 begins at an impossible time", 4, 4},
       {{"TimeOf2To63",
         atEnd(fragment(joined({box("tfdt", {values({1U << 24, 0x7FFFFFFF, most})}), fullBox("trun", {1})})))}});
  take(pieces, {"it has samples of track 77"},
       {{"AnUnknownTrack", atEnd(fragment(fullBox("trun", {most}), values({0, 77})))}});
  take(pieces, {"An sbgp names group 1 of 0"},
       {{"Groups", atEnd(fragment(box("sbgp", {bytesFrom("00000000 'roll' 00000001 FFFFFFFF 00010001")})))}});
}

}  // namespace
}  // namespace tarn::test
