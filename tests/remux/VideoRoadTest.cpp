#include <algorithm>
#include <functional>

#include "parameters/AVCConfigurationBox.h"
#include "parameters/HEVCConfigurationBox.h"
#include "platform/ForwardingFileManager.h"
#include "platform/Log.h"
#include "platform/memory/InMemoryFileManager.h"
#include "remux/RemuxFixture.h"
#include "remux/RemuxStep.h"
#include "support/FaultyFileManager.h"
#include "support/ParameterSetBuilder.h"
#include "support/ProbedMovie.h"
#include "support/RunRecorder.h"

namespace tarn {
namespace {

using namespace test;
using Units = std::vector<Bytes>;
using At = std::vector<uint32_t>;  ///< the description of each sample

/// What a run warned of, a line each.
std::string warningsOf(const ProcessingRun& run) {
  std::string lines;
  for (const std::string& words : run.outcome.leftAlone) lines += words + "\n";
  return lines;
}

/// The road of a run through the video step.
class VideoRoad : public RemuxTest {
 protected:
  /// Runs the step on a file. Returns what it warns of.
  std::string follow(const Bytes& movie, FileManager& files) {
    write(movie);
    ProcessingRun run = recorder_.runOn(files, file_);
    RemuxStep().run(run);
    expectNothingLeftBehind();
    return warningsOf(run);
  }
  std::string follow(const Bytes& movie) { return follow(movie, files_); }

  std::string followWritten() { return follow(written()); }

  /// The contents of a movie's only configuration box.
  Bytes recordOf(const Path& movie, bool isHEVC) {
    Bytes box = BoxEditor(readFile(files_, movie)).get(sampleTable + (isHEVC ? "/stsd/hev1/hvcC" : "/stsd/avc1/avcC"));
    return {box.begin() + 8, box.end()};
  }

  RunRecorder recorder_;
};

/// The parameter sets of one real stream.
struct Sets {
  Bytes vps, sps, pps;
  Units with(Bytes unit) const {
    Units all = vps.empty() ? Units{sps, pps} : Units{vps, sps, pps};
    all.push_back(std::move(unit));
    return all;
  }
};

Bytes hvcC(const Units& vps, const Units& sps, const Units& pps) {
  return HEVCConfigurationBox(vps, sps, pps, {}, 4, true).buildHvcCBox();
}
Bytes hvcC(const Sets& sets) {
  return hvcC({sets.vps}, {sets.sps}, {sets.pps});
}
Bytes avcC(const Units& sps, const Units& pps, int lengthSize = 4) {
  return AVCConfigurationBox(sps, pps, {}, lengthSize).buildAvcCBox();
}

/// A movie of sync samples, each a chunk with the description of its number.
Bytes movieOf(const Units& entries, const Units& samples, const std::vector<uint32_t>& descriptions) {
  Bytes media, sizes, offsets, rows, list;
  for (size_t i = 0; i < samples.size(); ++i) {
    ByteWriter(offsets).uint32(static_cast<uint32_t>(8 + media.size()));
    ByteWriter(sizes).uint32(static_cast<uint32_t>(samples[i].size()));
    ByteWriter(rows).uint32(static_cast<uint32_t>(i + 1)).uint32(1).uint32(descriptions[i]);
    ByteWriter(media).bytes(samples[i]);
  }
  for (const Bytes& entry : entries) ByteWriter(list).bytes(entry);
  auto count = static_cast<uint32_t>(samples.size());
  Bytes stsd = box("stsd", {values({0, static_cast<uint32_t>(entries.size())}), list});
  Bytes table = trackBox("vide", {stsd, box("stsz", {values({0, 0, count}), sizes}),
                                  box("stsc", {values({0, count}), rows}), box("stco", {values({0, count}), offsets})});
  return joined({box("mdat", {media}), box("moov", {table})});
}

/// How many VPS, SPS and PPS each entry's configuration box holds.
std::string setsIn(const Bytes& movie) {
  const BoxEditor editor(movie);
  std::string text;
  for (const std::string tag : {"hvc1", "hev1", "avc1", "avc3"}) {
    const bool isHEVC = tag[0] == 'h';
    for (auto found : editor.all(sampleTable + "/stsd/" + tag + (isHEVC ? "/hvcC" : "/avcC"))) {
      ByteView contents = ByteView(movie).subspan(found.offset + 8, found.size - 8);
      int lengthSizeMinusOne = 0;
      if (isHEVC) {
        const auto record = readHvcC(contents);
        for (const auto& array : record.arrays) text += std::to_string(array.nalUnits.size());
        lengthSizeMinusOne = record.lengthSizeMinusOne;
      } else {
        const auto record = readAvcC(contents);
        text += fmt::format("{}{}", record.spsArray.size(), record.ppsArray.size());
        lengthSizeMinusOne = record.lengthSizeMinusOne;
      }
      text += lengthSizeMinusOne == 3 ? " " : fmt::format(":{} ", lengthSizeMinusOne + 1);
    }
  }
  return text;
}

TEST_F(VideoRoad, TakesEachSetFromWhereItIs) {
  const auto hevc = [&](const std::string& size) {
    const auto record = readHvcC(recordOf(encodedVideo(inBand(true, size)), true));
    return Sets{record.arrays.at(0).nalUnits.at(0), record.arrays.at(1).nalUnits.at(0),
                record.arrays.at(2).nalUnits.at(0)};
  };
  const auto avc = [&](const std::string& size, const std::string& more = "") {
    VideoRecipe recipe = inBand(false, size);
    recipe.parameters += more;
    const auto record = readAvcC(recordOf(encodedVideo(recipe), false));
    return Sets{{}, record.spsArray.at(0), record.ppsArray.at(0)};
  };
  const Sets h = hevc("192x144"), large = hevc("256x160"), a = avc("192x144"), largeAVC = avc("256x160");
  const Sets shown = avc("192x144", ":colorprim=bt709:transfer=bt709:colormatrix=bt709");
  const Bytes slice{0x26, 1, 0xAA, 0xBB}, avcSlice{0x65, 0x88, 0x84}, prefix{0x6E, 1, 2, 3};
  const Bytes coded = HEVCSPS{}.bytes(), shown1080 = HEVCSPS{.id = 1, .conformanceWindow = true}.bytes();
  const Bytes pps0 = hevcPPS(0, 0x80), pps1 = hevcPPS(1, 0x80), otherPPS = hevcPPS(0, 0x88);
  ASSERT_NE(shown.sps, a.sps);
  Bytes tooLong = pps1, ofOtherLayer = pps1;
  tooLong.resize(65'536, 0x55);
  ofOtherLayer[1] |= 1 << 3;
  Bytes withSEI = hvcC({h.vps}, {h.sps}, {});
  withSEI[8 + 22] = 3;  // its last array, empty until now
  withSEI[withSEI.size() - 3] = 39;
  withSEI[withSEI.size() - 1] = 1;
  ByteWriter(withSEI).bytes(bytesFrom("0003 4e0101"));
  writeUInt32(withSEI, static_cast<uint32_t>(withSEI.size()), 0);
  const auto of = [](const Units& units) { return sampleOf(units); };
  const auto hev1 = [](const Bytes& record) { return visualSampleEntry("hev1", {record}); };
  const auto hvc1 = [](const Bytes& record) { return visualSampleEntry("hvc1", {record}); };
  const auto avc1 = [](const Bytes& record) { return visualSampleEntry("avc1", {record}); };
  const auto avc3 = [](const Bytes& record) { return visualSampleEntry("avc3", {record}); };
  const Bytes none = of({slice}), noneAVC = of({avcSlice}), full = of(h.with(slice)), other = of(large.with(slice));
  const Bytes fullAVC = of(a.with(avcSlice));
  const std::string same = "same", tag = "tag", lacks = "neither the file's header nor its pictures hold";
  const std::string one = "hvc1 0x0 1/1/1 2/1/1 ", oneAVC = "avc1 0x0 1/1/1 2/1/1 ";
  const std::string sizes = "hvc1 192x144 hvc1 256x160 1/1/1 2/1/2 ";
  const std::string twoAlike = "hvc1 192x144 hvc1 192x144 1/1/1 2/1/2 ";
  const struct {
    std::string name;
    Units entries, samples;
    std::string result;  ///< or what becomes of the file: "same", "tag"; then what is warned of
    std::string sets = {}, warning = {};
    At descriptions = {1, 1, 1, 1, 1, 1, 1, 1};
  } cases[] = {
      {"hvcC alone", {hvc1(hvcC(h))}, {none, none}, same},
      {"hvcC alone under hev1", {hev1(hvcC(h))}, {none, none}, tag, "111 "},
      {"both, alike", {hvc1(hvcC(h))}, {full, none, full}, same},
      {"one kind that hvcC has", {hvc1(hvcC(h))}, {of({h.pps, slice}), none}, same},
      {"one kind with another identifier", {hev1(hvcC(h))}, {of({pps1, slice}), none}, one, "112 "},
      {"the last identifier", {hev1(hvcC(h))}, {of({hevcPPS(63, 0x80), slice}), none}, one, "112 "},
      {"an identifier beyond the last", {hev1(hvcC(h))}, {of({hevcPPS(64, 0x80), slice}), none}, tag, "111 "},
      {"of an SPS beyond the last", {hev1(hvcC(h))}, {of({hevcPPS(5, 9), slice}), none}, tag, "111 "},
      {"of another layer", {hev1(hvcC(h))}, {of({ofOtherLayer, slice}), none}, tag, "111 "},
      {"an SPS that cannot be read", {hev1(hvcC(h))}, {of({HEVCSPS{.id = 1, .width = 0}.bytes(), slice})}, tag, "111 "},
      {"hvcC lacks what the samples have", {hev1(hvcC({h.vps}, {h.sps}, {}))}, {of({h.pps, slice}), none}, one, "111 "},
      {"nothing anywhere", Units{hev1({})}, Units{none, none}, same, "",
       lacks + " what a decoder needs (no VPS, no SPS, no PPS)"},
      {"no samples", {hev1({})}, {}, same, "", lacks + " what a decoder needs (no samples)"},
      {"no VPS", {hvc1(hvcC({}, {h.sps}, {h.pps}))}, {of({h.sps, h.pps, slice})}, same, "", "(no VPS)"},
      {"a change after hvcC", {hvc1(hvcC(h))}, {none, other, none}, sizes, "111 111 "},
      {"a change and back", Units{hvc1(hvcC(h))}, Units{none, other, none, full},
       "hvc1 192x144 hvc1 256x160 1/1/1 2/1/2 4/1/1 ", "111 111 "},
      {"another window on as large a picture", Units{hev1({})},
       Units{of({h.vps, coded, pps0, slice}), of({h.vps, shown1080, pps1, slice})},
       "hvc1 1920x1088 hvc1 1912x1080 1/1/1 2/1/2 ", "111 111 "},
      {"sets now and then", Units{hev1({})}, Units{full, none, full, none, other, none, other, none},
       "hvc1 192x144 hvc1 256x160 1/1/1 5/1/2 ", "111 111 "},
      {"the first samples have none", {hev1({})}, {none, full, none}, "hvc1 0x0 1/1/1 2/1/1 3/1/1 ", "111 "},
      {"an identifier again", {hvc1(hvcC(h))}, {none, of({otherPPS, slice}), none}, twoAlike, "111 111 "},
      {"a kind that comes with an identifier again", {hev1({})}, {of({h.vps, h.sps, slice}), other}, sizes, "111 111 "},
      {"a kind that comes with the second change", Units{avc3({})},
       Units{of({a.sps, avcSlice}), of({largeAVC.sps, avcSlice}), fullAVC},
       "avc1 192x144 avc1 256x160 1/1/1 2/1/2 3/1/1 ", "11 11 "},
      {"a set that is too long", {hev1({})}, {of({tooLong, h.vps, h.sps, h.pps, slice})}, "hvc1 0x0 1/1/1 ", "111 "},
      {"an SEI message in hvcC", Units{hev1(withSEI)}, Units{full, full}, one, "111 ",
       "1 SEI message of the old hvcC is not kept"},
      {"two whole entries", Units{hev1(hvcC(h)), hev1(hvcC(large))}, Units{full, none, other, none}, tag, "111 111 ",
       "", At{1, 1, 2, 2}},
      {"one of two entries is empty", {hvc1(hvcC(h)), hev1({})}, {none, other}, sizes, "111 111 ", "", {1, 2}},
      {"two codecs", {hvc1(hvcC(h)), avc1(avcC({a.sps}, {a.pps}))}, {none, other}, same, "", "", {1, 2}},
      {"two codecs, one without sets", Units{hev1({}), avc1(avcC({a.sps}, {a.pps}))}, Units{full, noneAVC}, same, "",
       "'avc1' beside 'hev1'", At{1, 2}},
      {"two sizes of lengths",
       Units{hev1(hvcC(h)), hev1(HEVCConfigurationBox({h.vps}, {h.sps}, {h.pps}, {}, 2, true).buildHvcCBox())},
       Units{full, sampleOf(h.with(slice), 2)}, tag, "111 111:2 ", "", At{1, 2}},
      {"a change under two sizes of lengths",
       Units{hev1(hvcC(h)), hev1(HEVCConfigurationBox({h.vps}, {h.sps}, {h.pps}, {}, 2, true).buildHvcCBox())},
       Units{full, sampleOf(large.with(slice), 2)}, same, "", "different sizes of NAL lengths", At{1, 2}},
      {"avcC alone", {avc1(avcC({a.sps}, {a.pps}))}, {noneAVC, noneAVC}, same},
      {"avcC alone under avc3", {avc3(avcC({a.sps}, {a.pps}))}, {noneAVC, noneAVC}, tag, "11 "},
      {"avcC without PPS", {avc3(avcC({a.sps}, {}))}, {fullAVC, noneAVC}, oneAVC, "11 "},
      {"avcC with SPS that cannot be read", Units{avc1(avcC({{0x67, 100, 0}}, {a.pps}))}, Units{fullAVC},
       "avc1 0x0 1/1/1 ", "11 "},
      {"AVC sets after a slice", {avc3({})}, {of({avcSlice, a.sps, a.pps, avcSlice})}, "avc1 0x0 1/1/1 ", "11 "},
      {"avcC states another colour", {avc1(avcC({shown.sps}, {shown.pps}))}, {fullAVC, noneAVC, fullAVC}, same},
      {"lengths of two bytes", Units{avc1(avcC({a.sps}, {a.pps}, 2))},
       Units{sampleOf(a.with(avcSlice), 2), sampleOf({avcSlice}, 2)}, same},
      {"lengths of one byte", Units{avc1(avcC({a.sps}, {a.pps}, 1))},
       Units{sampleOf(a.with(avcSlice), 1), sampleOf(largeAVC.with(avcSlice), 1)},
       "avc1 192x144 avc1 256x160 1/1/1 2/1/2 ", "11:1 11:1 "},
      {"lengths of two bytes that nothing states", Units{avc3({})},
       Units{sampleOf(a.with(avcSlice), 2), sampleOf({avcSlice}, 2)}, oneAVC, "11:2 "},
      {"HEVC lengths of two bytes", {hev1({})}, {sampleOf(h.with(slice), 2)}, "hvc1 0x0 1/1/1 ", "111:2 "},
      {"a change under lengths of two bytes", Units{avc1(avcC({a.sps}, {a.pps}, 2))},
       Units{sampleOf(a.with(avcSlice), 2), sampleOf(largeAVC.with(avcSlice), 2)},
       "avc1 192x144 avc1 256x160 1/1/1 2/1/2 ", "11:2 11:2 "},
      {"a zero after a set", {avc1(avcC({a.sps}, {a.pps}))}, {of({a.sps, joined({a.pps, Bytes(2)}), avcSlice})}, same},
      {"a prefix before", {avc1(avcC({a.sps}, {a.pps}))}, {of({prefix, a.sps, a.pps, avcSlice})}, same},
      {"start codes in place of lengths", Units{avc1({})},
       Units{joined({bytesFrom("00000001"), a.sps, bytesFrom("00000001"), a.pps, bytesFrom("00000001"), avcSlice})},
       same, "", lacks},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Bytes movie = movieOf(c.entries, c.samples, c.descriptions);
    EXPECT_THAT(follow(movie), testing::HasSubstr(c.warning));
    Bytes result = written();
    if (c.result == same) {
      EXPECT_EQ(result, movie);
      continue;
    }
    EXPECT_EQ(setsIn(result), c.sets);
    if (c.result == tag) {
      for (const char* inBandTag : {"hev1", "avc3"})
        EXPECT_THAT(BoxEditor(result).all(sampleTable + "/stsd/" + inBandTag), testing::IsEmpty());
      ptrdiff_t changed = 0;
      for (size_t i = 0; i < movie.size(); ++i) changed += result.at(i) != movie[i];
      EXPECT_LE(changed, 3 * static_cast<ptrdiff_t>(c.entries.size()));
      EXPECT_EQ(result.size(), movie.size());
    } else {
      EXPECT_THAT(describe(result), testing::StartsWith(c.result));
      EXPECT_EQ(BoxEditor(result).get("mdat"), BoxEditor(movie).get("mdat"));
    }
    EXPECT_EQ(followWritten(), "");
    EXPECT_EQ(written(), result) << "a second repair changes it";
  }
  write(movieOf({hev1({})}, {of({h.vps, coded, shown1080, pps0, pps1, slice})}, {1}));
  EXPECT_THAT(planVideo(files_, file_)->reason, testing::HasSubstr("only in the bitstream"))
      << "sets of two sizes in one sample are no change of the size";
}

/// Up to one SPS and one PPS of two each with the same identifiers, by a number below 9; in HEVC a VPS beside an SPS.
Units mixture(const Sets& one, const Sets& other, int number) {
  Units units;
  const Sets& ofSPS = number % 3 == 1 ? one : other;
  if (number % 3 != 0 && !ofSPS.vps.empty()) units.push_back(one.vps);
  if (number % 3 != 0) units.push_back(ofSPS.sps);
  if (number / 3 != 0) units.push_back(number / 3 == 1 ? one.pps : other.pps);
  return units;
}

TEST_F(VideoRoad, LeavesWhatItHasRepairedAloneWhateverCarriesTheSets) {
  const auto setsOf = [&](bool isHEVC, const std::string& size, const Bytes& pps) {
    const Bytes contents = recordOf(encodedVideo(inBand(isHEVC, size)), isHEVC);
    if (!isHEVC) return Sets{{}, readAvcC(contents).spsArray.at(0), pps};
    const auto record = readHvcC(contents);
    return Sets{record.arrays.at(0).nalUnits.at(0), record.arrays.at(1).nalUnits.at(0), pps};
  };
  setLogSink([](std::string_view) {});
  const Path movie = "/home/clip.mp4";
  constexpr int mixtures = 9;
  for (bool isHEVC : {true, false}) {
    const Sets one = setsOf(isHEVC, "192x144", isHEVC ? hevcPPS(0, 0x80) : Bytes{0x68, 0xCE, 0x3C});
    const Sets other = setsOf(isHEVC, "256x160", isHEVC ? hevcPPS(0, 0x88) : Bytes{0x68, 0xCE, 0x3D});
    const Bytes slice = isHEVC ? Bytes{0x26, 1, 0xAA, 0xBB} : Bytes{0x65, 0x88, 0x84};
    for (int i = 0; i < mixtures * mixtures * mixtures * mixtures; ++i) {
      const auto part = [&](int divisor) { return mixture(one, other, i / divisor % mixtures); };
      const auto sample = [&](int divisor) {
        Units units = part(divisor);
        units.push_back(slice);
        return sampleOf(units);
      };
      Units vps, sps, pps;
      for (const Bytes& unit : part(1)) {
        (unit == one.pps || unit == other.pps ? pps : unit == one.sps || unit == other.sps ? sps : vps).push_back(unit);
      }
      const Bytes entry =
          isHEVC ? visualSampleEntry("hev1", {hvcC(vps, sps, pps)}) : visualSampleEntry("avc3", {avcC(sps, pps)});
      InMemoryFileManager files;
      writeFileAtomically(files, movie, movieOf({entry}, {sample(9), sample(81), sample(729)}, {1, 1, 1}));
      const auto repaired = [&] {
        RunRecorder recorder;
        ProcessingRun run = recorder.runOn(files, movie);
        RemuxStep().run(run);
        return readFile(files, movie);
      };
      const Bytes once = repaired();
      ASSERT_EQ(repaired(), once) << (isHEVC ? "HEVC " : "AVC ") << i;
    }
  }
}

/// Turns the parameter sets of some sync samples into filler data.
void hideSets(Bytes& movie, const Path& like, bool isHEVC, const std::function<bool(size_t sync)>& isHidden) {
  size_t number = 0;
  const auto packets = packetsOf(like, false);
  for (const Packet& packet : packets.at("video")) {
    if (packet.flags[0] != 'K' || !isHidden(number++)) continue;
    for (size_t at = static_cast<size_t>(packet.place);; at += 4 + *readUInt32(movie, at)) {
      uint8_t& header = movie.at(at + 4);
      const int type = isHEVC ? header >> 1 & 63 : header & 31;
      const bool isSet = isHEVC ? type >= 32 && type <= 34 : type == 7 || type == 8;
      if (isHEVC ? type < 32 : type >= 1 && type <= 5) break;
      if (isSet) header = isHEVC ? 38 << 1 : 12;
    }
  }
}

TEST_F(VideoRoad, MendsRealStreamsThatChange) {
  const VideoRecipe avc = inBand(false), largeAVC = inBand(false, "256x160");
  const VideoRecipe hevc = inBand(true, "160x124");  // coded as 160x128
  const VideoRecipe largeHEVC = inBand(true, "256x160");
  VideoRecipe otherAVC = avc, fields = inBand(false, "192x136");
  otherAVC.parameters += ":ref=3";
  fields.parameters += ":interlaced=1";
  const auto all = [](size_t) { return false; };
  const auto odd = [](size_t sync) { return sync % 3 == 1; };
  const auto afterFirst = [](size_t sync) { return sync < 3; };  // the first part's stand in the sample entry
  const struct {
    std::vector<VideoRecipe> parts;
    std::function<bool(size_t)> isHidden;
    std::string result;
  } cases[] = {
      {{avc, largeAVC}, all, "avc1 192x144 avc1 256x160 1/1/1 51/1/2 "},
      {{avc, otherAVC, avc}, all, "avc1 192x144 avc1 192x144 1/1/1 51/1/2 101/1/1 "},
      {{avc, largeAVC}, odd, "avc1 192x144 avc1 256x160 1/1/1 51/1/2 "},
      {{fields, largeAVC}, afterFirst, "avc1 192x136 avc1 256x160 1/1/1 51/1/2 "},
      {{hevc, largeHEVC, hevc}, odd, "hvc1 160x124 hvc1 256x160 1/1/1 51/1/2 101/1/1 "},
      {{hevc, largeHEVC}, afterFirst, "hvc1 160x124 hvc1 256x160 1/1/1 51/1/2 "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    const bool isHEVC = c.parts[0].codec == "libx265";
    const Path file = joinedVideo(c.parts);
    Bytes movie = readFile(files_, file);
    hideSets(movie, file, isHEVC, c.isHidden);
    std::string pictures;
    for (const VideoRecipe& part : c.parts) pictures += pictureHashes(encodedVideo(part));
    // The encoder's notes about itself stand in the hvcC.
    EXPECT_EQ(follow(movie), isHEVC ? "1 SEI message of the old hvcC is not kept\n" : "");
    EXPECT_THAT(describe(written()), testing::StartsWith(c.result));
    EXPECT_EQ(pictureHashes(file_), pictures);
    EXPECT_EQ(decoderComplaints(file_), "");
    EXPECT_EQ(BoxEditor(written()).get("mdat"), BoxEditor(movie).get("mdat"));
    if (isHEVC) continue;
    const Bytes planned = written();
    MP4Remuxer::remuxAVCWithParameterExtraction(files_, write(movie), "avc1", nullptr, timings_);
    EXPECT_EQ(written(), planned) << "the worker plans for itself";
  }
}

TEST_F(VideoRoad, LeavesAloneWhatItDoesNotKnow) {
  const auto movieWith = [](const Bytes& stsd) { return box("moov", {trackBox("vide", {stsd})}); };
  for (const Bytes& movie :
       {Bytes(), movieWith(box("stsd")), movieWith(sampleDescriptionBox({visualSampleEntry("vp09")}))}) {
    EXPECT_EQ(follow(movie), "");
    EXPECT_EQ(written(), movie);
  }
  write(box("moov", {trackBox("vide", {})}));
  EXPECT_EQ(failureOf([&] { planVideo(files_, file_); }), "Corrupted MP4 file: Video track stsd not found");
}

TEST_F(VideoRoad, CancelledAtAnyMomentLeavesTheFileAsItWasOrWhole) {
  recorder_.onSave = [&](const ProcessingState&) { recorder_.token->cancel(); };
  EXPECT_THROW(follow(readFile(files_, encodedVideo({}))), CancellationError);
  EXPECT_EQ(recorder_.stages, "remuxing ") << "nor is what needs no repair called done";
  recorder_.onSave = {};
  const Bytes damaged = damagedVideo(true);
  EXPECT_THROW(follow(damaged), CancellationError);
  EXPECT_EQ(recorder_.stages, "");

  recorder_.token = std::make_shared<CancellationToken>();
  follow(damaged);
  const Bytes whole = written();
  FaultyFileManager files(files_);
  bool isTooLate = false;
  const auto cancel = [&] {
    recorder_.token->cancel();
    isTooLate =
        std::ranges::any_of(log_.lines(), [](auto& line) { return line.starts_with("Writing temporary file"); });
  };
  const uint64_t openings =
      files.sweep({.errnum = 0, .among = {FileOperation::open}, .strike = cancel}, [&](uint64_t opening) {
        log_.clear();
        isTooLate = true;
        recorder_.token = std::make_shared<CancellationToken>();
        const std::string failure = failureOf([&] { follow(damaged, files); });
        EXPECT_EQ(failure, files.fired() ? "Operation was cancelled" : "");
        EXPECT_EQ(written(), isTooLate ? whole : damaged) << opening;
        expectNothingLeftBehind();
      });
  EXPECT_GT(openings, 3u);
}

/// A file system with so many bytes free.
struct TightFiles : ForwardingFileManager {
  using ForwardingFileManager::ForwardingFileManager;
  std::optional<uint64_t> freeSpace(const Path&) override { return free; }
  uint64_t free = 0;
};

TEST_F(VideoRoad, AsksForMoreThanTwiceTheFilesSize) {
  const std::string refusal = "Write error: Insufficient disk space: need 0MB, have 0MB available.";
  for (const bool isHEVC : {true, false}) {
    const Bytes damaged = damagedVideo(isHEVC);
    for (const bool isEnough : {false, true}) {
      TightFiles tight(files_);
      tight.free = 2 * damaged.size() + (isEnough ? 1 : 0);
      EXPECT_EQ(failureOf([&] { follow(damaged, tight); }).substr(0, refusal.size()), isEnough ? "" : refusal);
      EXPECT_EQ(written() != damaged, isEnough);
    }
  }
}

/// A file system that cannot read one place of its files, the first time.
struct BadSector : ForwardingFileManager {
  BadSector(FileManager& files, uint64_t bad) : ForwardingFileManager(files), place(bad) {}
  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    return std::make_unique<Handle>(ForwardingFileManager::open(path, mode), place);
  }
  std::optional<uint64_t> place;

  struct Handle : ForwardingFileHandle {
    Handle(std::unique_ptr<FileHandle> base, std::optional<uint64_t>& bad)
        : ForwardingFileHandle(std::move(base)), place(bad) {}
    Bytes read(size_t count) override {
      if (!place || offset() > *place || offset() + count <= *place) return ForwardingFileHandle::read(count);
      place.reset();
      throw PosixError(EIO, "read");
    }
    std::optional<uint64_t>& place;
  };
};

TEST_F(VideoRoad, ABoxThatCannotBeReadCostsItsContentsAlone) {
  const Bytes damaged = damagedVideo(true);
  BadSector bad(files_, damaged.size() + 20);
  EXPECT_EQ(follow(joined({damaged, box("skip", {Bytes(40, 'x')})}), bad), "");
  EXPECT_FALSE(bad.place);
  const Bytes repaired = written();
  EXPECT_EQ(Bytes(repaired.end() - 48, repaired.end()), box("free", {Bytes(40)}));
  follow(damaged);
  EXPECT_EQ(Bytes(repaired.begin(), repaired.end() - 48), written());
}

/// A file system on which each `moov` that is written loses the duration of its first samples.
struct MeddlingFiles : ForwardingFileManager {
  using ForwardingFileManager::ForwardingFileManager;
  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    return std::make_unique<Handle>(ForwardingFileManager::open(path, mode));
  }

  struct Handle : ForwardingFileHandle {
    using ForwardingFileHandle::ForwardingFileHandle;
    void write(ByteView bytes) override {
      BoxEditor editor({bytes.begin(), bytes.end()});
      if (bytes.size() > 8 && textOf(bytes.subspan(4, 4)) == "moov") {
        editor.setField(editor.at(sampleTable + "/stts").offset + 20, 1);
      }
      ForwardingFileHandle::write(editor.bytes);
    }
  };
};

TEST_F(VideoRoad, ProvesItsResult) {
  MeddlingFiles meddling(files_);
  for (bool isChanging : {false, true}) {
    const Path clip = isChanging ? joinedVideo({inBand(true), inBand(true, "256x160")}) : encodedVideo(inBand(true));
    const Bytes movie = withoutParameterSets(readFile(files_, clip), true);
    const std::string warning = follow(movie, meddling);
    EXPECT_THAT(warning, testing::StartsWith("the video is left as it is: "));
    EXPECT_THAT(warning, testing::HasSubstr("pictures"));
    EXPECT_EQ(written(), movie);
    EXPECT_THAT(recorder_.stages, testing::EndsWith("remuxing remuxed "));
  }
}

}  // namespace
}  // namespace tarn
