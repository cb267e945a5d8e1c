#include <fmt/format.h>
#include <gtest/gtest.h>

#include "audio/MP4AudioTrackReplacer.h"
#include "mp4/DataExtensions.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/FailureOf.h"
#include "support/FaultyFileManager.h"
#include "support/LogCapture.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using Replacer = MP4AudioTrackReplacer;

class TrackReplacer : public testing::Test {
 protected:
  void replace(FileManager& files, Replacer::EditList editList = Replacer::EditList::dropped) {
    Replacer::replaceAudioTrack(files, source_, newAudio_, output_, editList);
  }

  static Bytes mvhd(uint32_t timescale, uint32_t duration = 0) {
    return box("mvhd", {values({0, 0, 0, timescale, duration}), Bytes(80)});
  }
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
  const Path newAudio_ = directory_ / "new.m4a";
  LogCapture log_;
};

TEST_F(TrackReplacer, KeepsTheEditsOfTheOldTrackInTheClockOfTheNewOne) {
  constexpr uint32_t rate = 0x10000, empty = 0xFFFFFFFF;
  using Fields = std::vector<uint32_t>;
  const auto list = [](uint32_t version, uint32_t count, const Fields& fields) {
    Bytes entries = values({version << 24, count});
    for (uint32_t field : fields) ByteWriter(entries).uint32(field);
    return box("edts", {box("elst", {entries}), box("free")});
  };
  const auto clock = [](uint32_t timescale, uint32_t duration) {
    return fullBox("mdhd", {0, 0, timescale, duration, 0x10A30000});
  };
  // The movie has 600 ticks a second, the old media 44100, the new ones 48000 and ten seconds.
  const auto sound = [&](uint32_t timescale, const Bytes& edits) {
    BoxEditor editor(track("soun", 3, 480000, {fullBox("stts", {1, 4, 1024})}));
    editor.insert("trak/mdia", editor.at("trak/mdia").offset + 8, clock(timescale, 10 * timescale));
    if (!edits.empty()) editor.insert("trak", editor.at("trak/mdia").offset, edits);
    return editor.bytes;
  };
  const struct {
    std::string name;
    Bytes before, after;
    uint32_t duration;  // of the track
    Replacer::EditList rule = Replacer::EditList::kept;
  } rows[] = {
      {"priming, to the nearest tick", list(0, 1, {3000, 1024, rate}), list(0, 1, {3000, 1115, rate}), 3000},
      {"a pause and other rates", list(0, 3, {9, 441, rate, 60, empty, 0, 9, 882, 0x8000}),
       list(0, 3, {9, 480, rate, 60, empty, 0, 9, 960, 0x8000}), 78},
      {"64 bits", list(1, 2, {0, 600, empty, empty, rate, 0, 600, 0, 441, rate}),
       list(1, 2, {0, 600, empty, empty, rate, 0, 600, 0, 480, rate}), 1200},
      {"64 bits needed", list(0, 2, {1, 0x7FFFFFFF, rate, 1, 441, rate}),
       list(1, 2, {0, 1, 0, 2337397167, rate, 0, 1, 0, 480, rate}), 2},
      {"to the end of the media", list(0, 1, {0, 44100, rate}), list(0, 1, {0, 48000, rate}), 5400},
      {"a packet of nothing", list(0, 1, {6012, 0, rate}), list(0, 1, {6012, 0, rate}), 6012},
      {"more than that", list(0, 1, {6014, 441, rate}), list(0, 1, {5994, 480, rate}), 5994},
      {"fewer than promised", list(0, 9, {30, 441, rate}), list(0, 1, {30, 480, rate}), 30},
      {"not wanted", list(0, 1, {30, 441, rate}), {}, 6000, Replacer::EditList::dropped},
  };
  writeFileAtomically(files_, newAudio_, movie({mvhd(48000), sound(48000, list(0, 1, {1, 1, rate}))}));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    writeFileAtomically(files_, source_, movie({mvhd(600, 9000), track("vide", 1, 1), sound(44100, row.before)}));
    replace(files_, row.rule);
    const BoxEditor output(readFile(files_, output_));
    const bool hasEdits = !output.all("moov/trak/edts").empty();
    EXPECT_EQ(hasEdits ? output.get("moov/trak/edts") : Bytes(), row.after);
    const auto header = output.all("moov/trak/tkhd").at(1);
    EXPECT_EQ(output.field(header.offset + 20), 3u);
    EXPECT_EQ(output.field(header.offset + 28), row.duration);
    EXPECT_EQ(output.field(output.at("moov/mvhd").offset + 24), row.duration);
    EXPECT_EQ(output.get("moov/trak/mdia/mdhd"), clock(48000, 480000));
  }
}

/// The items of an `iloc`, four bytes each.
struct Items {
  uint8_t version;
  uint8_t offsetWidth, baseWidth;
  bool haveBase;  ///< else their extents count from the start of the file

  Bytes at(std::initializer_list<uint32_t> places) const {
    Bytes bytes;
    ByteWriter writer(bytes);
    const auto put = [&](size_t width, uint32_t value) {
      if (width == 8) writer.uint32(0);
      if (width > 0) writer.uint32(value);
    };
    const size_t wide = version < 2 ? 2 : 4;
    const auto number = [&](uint16_t value) { wide == 2 ? writer.uint16(value) : writer.uint32(value); };
    writer.uint32(uint32_t{version} << 24).uint8(static_cast<uint8_t>(offsetWidth << 4 | 4));
    writer.uint8(static_cast<uint8_t>(baseWidth << 4 | (version > 0 ? 4 : 0)));
    number(static_cast<uint16_t>(places.size()));
    for (uint32_t place : places) {
      number(1);
      writer.zeros(version > 0 ? 4 : 2);  // construction method and data reference
      put(baseWidth, haveBase ? place : 0);
      writer.uint16(1);
      if (version > 0) writer.uint32(9);
      put(offsetWidth, haveBase ? 0 : place);
      writer.uint32(4);
    }
    return box("iloc", {bytes});
  }
};

TEST_F(TrackReplacer, MovesTheItemsOfAMetaBoxWithTheirBytes) {
  const Items shapes[] = {{0, 4, 0, false}, {0, 8, 4, false}, {1, 4, 4, true}, {1, 0, 4, true},
                          {2, 8, 8, true},  {2, 8, 8, false}, {0, 0, 8, true}};
  writeFileAtomically(files_, newAudio_, movie({mvhd(600), track("soun", 1, 100)}));
  for (const Items& items : shapes) {
    SCOPED_TRACE(fmt::format("version {}, widths {} and {}", items.version, items.offsetWidth, items.baseWidth));
    // One lies ahead of the moov and one behind it, and three boxes name them; the last is of the older format.
    const auto file = [&](uint32_t behind) {
      const Bytes iloc = items.at({8, behind}), meta = box("meta", {values({0}), iloc});
      return joined({box("mdat", {Bytes(92)}), meta,
                     box("moov", {mvhd(600), track("vide", 1, 100), meta, box("udta", {box("meta", {iloc})})}),
                     box("mdat", {Bytes(4)})});
    };
    const auto behind = static_cast<uint32_t>(file(0).size() - 4);
    writeFileAtomically(files_, source_, file(behind));
    replace(files_);
    const BoxEditor output(readFile(files_, output_));
    const auto now = static_cast<uint32_t>(output.bytes.size() - 4);
    const Bytes moved = items.at({8 + 20, now});  // behind the ftyp that the source has not
    EXPECT_EQ(output.get("ftyp"), box("ftyp", {values({0x6D703432, 0, 0x6D703432})}));  // "mp42"
    for (const char* path : {"meta", "moov/meta", "moov/udta/meta"}) {
      const Bytes meta = output.get(path);
      EXPECT_TRUE(std::equal(moved.rbegin(), moved.rend(), meta.rbegin())) << path;
    }
  }
  FaultyFileManager faulty(files_);
  const uint64_t reads = faulty.sweep({.among = {FileOperation::read}}, [&](uint64_t call) {
    const std::string failure = failureOf([&] { replace(faulty); });
    EXPECT_EQ(failure.empty(), !faulty.fired()) << "call " << call;
    EXPECT_EQ(failure.find("item"), std::string::npos) << "call " << call << " fails, and no item is out of place";
  });
  EXPECT_GT(reads, 10u);
}

TEST_F(TrackReplacer, TurnsStcoIntoCo64WhereTheMediaPass4GiB) {
  // The file ends far before its media; all that the moov names moves by as much as the file grows.
  const Bytes source =
      joined({box("moov", {mvhd(600), track("vide", 1, 100, {fullBox("stco", {2, 4000, UINT32_MAX})})}),
              box("mdat", {Bytes(92)})});
  writeFileAtomically(files_, newAudio_, movie({mvhd(600), track("soun", 1, 100)}));
  writeFileAtomically(files_, source_, source);
  replace(files_);
  const BoxEditor output(readFile(files_, output_));
  EXPECT_EQ(output.field(output.all("moov/trak/tkhd").at(1).offset + 20), 2u) << "the new track has its own number";
  const auto growth = static_cast<uint32_t>(output.bytes.size() - source.size());
  EXPECT_EQ(output.get("moov/trak/mdia/minf/stbl/co64"), fullBox("co64", {2, 0, 4000 + growth, 1, growth - 1}));
}

TEST_F(TrackReplacer, RefusesWhatItCannotExpress) {
  const Bytes goodTrack = track("vide", 1, 100), good = movie({mvhd(600), goodTrack});
  const Bytes goodAudio = movie({mvhd(600), track("soun", 1, 100)});
  using Fields = std::initializer_list<uint32_t>;
  const auto pictures = [](Fields stco) { return movie({mvhd(1), track("vide", 1, 1, {fullBox("stco", stco)})}); };
  const auto withMdat = [&](const Bytes& mdat, const std::string& handler = "vide") {
    return joined({box("moov", {mvhd(1), track(handler, 1, 100)}), mdat});
  };
  const struct {
    std::string failure;
    Bytes source;
    Bytes audio = {};  // or else a good one
  } rows[] = {
      {"No video track found in original file", movie({mvhd(1), boxClaiming(0, "free"), goodTrack})},
      {"Corrupted MP4: trak reaches over its moov", movie({mvhd(1), boxClaiming(900, "trak", {Bytes(20)})})},
      {"Corrupted MP4: Fragmented MP4 (moof box found)", joined({good, box("moof")})},
      {"Corrupted MP4: The moov holds the media", movie({mvhd(1), goodTrack, box("mdat")})},
      {"Corrupted MP4: A chunk lies in no mdat box", good,
       movie({mvhd(1), track("soun", 1, 1, {fullBox("stco", {1, 101})})})},
      {"Corrupted MP4: The media do not fit a file", good, withMdat(longBoxClaiming(UINT64_MAX - 500, "mdat"), "soun")},
      {"Write error: Failed to read audio mdat", good, withMdat(boxClaiming(900, "mdat", {Bytes(20)}), "soun")},
      {"Corrupted MP4: An item lies in no mdat box",
       movie({mvhd(1), goodTrack, box("meta", {values({0}), Items{0, 4, 0, false}.at({101})})})},
      // A chunk of no bytes may lie at the end of its box, a table may end before its entries, and what the source
      // says of media that it has not stays untrue.
      {"", pictures({9, 8, 100})},
      {"", pictures({1, 0xFFFFFFFF})},
      {"", withMdat(boxClaiming(900, "mdat", {Bytes(20)}))},
  };
  for (const auto& row : rows) {
    writeFileAtomically(files_, source_, row.source);
    writeFileAtomically(files_, newAudio_, row.audio.empty() ? goodAudio : row.audio);
    EXPECT_EQ(failureOf([&] { replace(files_); }), row.failure);
  }
}

}  // namespace
}  // namespace tarn::test
