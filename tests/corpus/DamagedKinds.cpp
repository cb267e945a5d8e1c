#include <fmt/format.h>

#include <algorithm>

#include "corpus/Kinds.h"
#include "platform/host/PosixFileManager.h"
#include "support/DamagedMovies.h"
#include "support/ProbedMovie.h"

namespace tarn::test {
namespace {

/// What a file is like that a damage comes into.
struct Setting {
  std::string name;
  ClipRecipe recipe = {};
  std::string source = "-i {0} -map 0";  ///< inputs and tracks, of which {0} is the clip, {1} audio alone
  bool isFar = false;
};

const std::vector<Setting>& settings() {
  static const std::vector<Setting> all = {
      {"plain"},
      {"mono", {.audio = mono}},
      {"cut", {}, "-ss 1.3 -i {0} -map 0"},
      {"late", {}, "-i {0} -itsoffset 0.3 -i {0} -map 0:v -map 1:a"},
      {"early", {}, "-itsoffset 0.3 -i {0} -i {0} -map 0:v -map 1:a"},
      {"far", {}, "-i {0} -map 0", true},
      {"two tracks", {}, "-i {0} -i {1} -map 0:v -map 0:a -map 1:a -metadata title=Title -metadata:s:a:1 language=fra"},
      {"24 kHz", {.audioRate = 24000}},
      {"44.1 kHz", {.audioRate = 44100}},
      {"no B-frames", {.video = avcPlain}},
      {"no lists", {}, "-i {0} -map 0 -use_editlist 0"},
  };
  return all;
}

/// The setting's file, with this muxer's damage and these edits.
Maker damaged(const Setting& where, const ClipRecipe& recipe, const std::string& options,
              const std::vector<Edit>& edits) {
  return [=](const Path& directory) {
    Path file = muxed(where.source + " -c:v copy -c:a copy " + options, {clip(recipe), clip({.video = ""})});
    if (!edits.empty()) file = edited(file, edits, directory);
    return where.isFar ? withFarMoov(file, directory) : file;
  };
}

/// One kind in each of these settings.
std::vector<Kind> across(const std::vector<std::string>& where, const std::string& name,
                         const std::function<Kind(const Setting&)>& kindIn) {
  std::vector<Kind> kinds;
  for (const std::string& each : where) {
    kinds.push_back(kindIn(*std::ranges::find(settings(), each, &Setting::name)));
    kinds.back().name = name + ", " + each;
    kinds.back().outcome = Outcome::changed;
  }
  return kinds;
}

/// Parameter sets that are missing in the sample entry.
std::vector<Kind> sets(const std::string& name, const std::string& video, const std::string& tag, const Edit& edit,
                       const std::vector<std::string>& where, bool isReadable = true) {
  return across(where, name, [=](const Setting& setting) {
    ClipRecipe recipe = setting.recipe;
    recipe.video = video;
    const Maker whole = damaged(setting, recipe, "-tag:v " + tag, {});
    return Kind{.make = damaged(setting, recipe, "-tag:v " + tag, {tagged(tag), edit}),
                .allowed = {.entries = 1},
                .reference = isReadable ? Maker() : whole};
  });
}

/// A second configuration in mid-stream.
std::vector<Kind> changes(const std::string& name, const std::string& video, const std::string& otherVideo,
                          const std::string& otherSize, const std::string& tag, const Edit& edit,
                          const std::vector<std::string>& where) {
  return across(where, name, [=](const Setting& s) {
    const Maker make = [=](const Path& directory) {
      const ClipRecipe one{.video = video, .audio = "", .seconds = 2};
      const ClipRecipe other{.video = otherVideo, .audio = "", .seconds = 2, .size = otherSize};
      const Path whole = joinedClips(one, other, s.recipe.audio, tag);
      const Path file = edited(muxed(s.source + " -c:v copy -c:a copy -tag:v " + tag, {whole, clip({.video = ""})}),
                               {tagged(tag), edit}, directory);
      return s.isFar ? withFarMoov(file, directory) : file;
    };
    return Kind{.make = make, .allowed = {.entries = 2}};
  });
}

/// Audio whose packets are lost or stamped otherwise.
std::vector<Kind> audioDamage(const std::string& name, const std::string& filter, const std::vector<std::string>& where,
                              int seconds = 4) {
  return across(where, name, [=](const Setting& setting) {
    ClipRecipe recipe = setting.recipe;
    recipe.seconds = seconds;
    if (seconds > 10) recipe.rate = std::string("5");
    return Kind{.make = damaged(setting, recipe, "-bsf:a:0 " + filter, {}),
                .allowed = {.audio = true, .audioStays = false}};
  });
}

/// `noise` that drops the packets between two moments.
std::string lost(double begin, double end, int rate = 48000) {
  return fmt::format("noise=drop='between(n,{},{})'", int(begin * rate / 1024), int(end * rate / 1024));
}

std::vector<Kind> badList(const std::string& name, const std::string& handler,
                          const std::vector<std::pair<int32_t, int32_t>>& entries,
                          const std::vector<std::string>& where) {
  return across(where, name, [=](const Setting& setting) {
    return Kind{.make = damaged(setting, setting.recipe, "", {list(handler, entries)}),
                .reference = damaged(setting, setting.recipe, "", {withoutList(handler)})};
  });
}

/// Unknown boxes in the containers, some of an odd type or size.
Bytes withOddBoxes(const Bytes& moov) {
  BoxEditor editor(moov);
  for (const std::string& parent : {sampleTable, std::string("moov/trak"), std::string("moov")}) {
    editor.insert(parent, editor.at(parent).offset + 8, box("wxyz", {Bytes(8)}));
    editor.insert(parent, editor.at(parent).end(), box("uuid", {Bytes(24, 9)}));
    editor.insert(parent, editor.at(parent).end(), box("\xFF\xFE\xFD\xFC"));
  }
  return editor.bytes;
}

/// A movie with much to mend, in each layout that a file may have.
std::vector<Kind> layouts() {
  std::vector<Kind> kinds;
  for (const char* parts :
       {"ftyp moov free mdat", "ftyp free mdat moov", "ftyp uuid moov uuid mdat free", "ftyp moov longMdat free",
        "ftyp moov openMdat", "ftyp mdat uuid openMoov", "ftyp first moov free second", "first moov longSecond",
        "ftyp moov second first", "ftyp moov large mdat", "moov mdat openFtyp", "ftyp moov mdat tail"}) {
    const bool isOdd = kinds.size() % 2 == 1;
    const Maker make = [=](const Path& directory) {
      const ClipRecipe one{.video = hev1InBand, .audio = "", .seconds = 2};
      const ClipRecipe other{.video = hev1InBand, .audio = "", .seconds = 2, .size = "320x240"};
      const Path whole = joinedClips(one, other, stereo, "hev1");
      MovieLayout movie(contentsOf(muxed("-i {0} -c copy -tag:v hev1 -bsf:a:0 " + lost(2.5, 2.9), {whole})));
      if (isOdd) movie.moov = withOddBoxes(movie.moov);
      if (isOdd) movie.useLongOffsets();
      PosixFileManager files(directory);
      writeFileAtomically(files, directory / "clip.mp4", movie.build(parts));
      return directory / "clip.mp4";
    };
    const Allowed allowed{.audio = true, .audioStays = false, .entries = 2};
    kinds.push_back({std::string(parts) + (isOdd ? ", odd" : ""), make, Outcome::changed, allowed});
  }
  return kinds;
}

std::vector<Kind> joinedKinds(const std::vector<std::vector<Kind>>& parts) {
  std::vector<Kind> all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

const Edit noSets = keepingSets({});
const Edit nothing = [](BoxTree&) {};

}  // namespace

std::vector<KindGroup> damagedKinds() {
  const std::string cavlc = avcInBand + ":cabac=0";
  const auto avcSets = joinedKinds(
      {sets("avc3, no sets", avcInBand, "avc3", noSets, {"plain", "mono", "cut", "late", "far", "two tracks"}),
       sets("avc3, no avcC", avcInBand, "avc3", withoutConfiguration(), {"plain"}, false),
       sets("avc3, no PPS", avcInBand, "avc3", keepingSets({7}), {"plain", "cut"}),
       sets("avc1, no PPS", avcInBand, "avc1", keepingSets({7}), {"early"}),
       sets("avc3, complete", avc, "avc3", nothing, {"plain", "cut"})});
  const auto hevcSets = joinedKinds(
      {sets("hev1, no sets", hev1InBand, "hev1", noSets, {"plain", "cut", "late", "early", "far", "two tracks"}),
       sets("hev1, no hvcC", hev1InBand, "hev1", withoutConfiguration(), {"late"}, false),
       sets("hev1, VPS alone", hev1InBand, "hev1", keepingSets({32}), {"mono"}),
       sets("hvc1, no SPS", hev1InBand, "hvc1", keepingSets({32, 34}), {"plain"}, false)});
  const auto midStream = joinedKinds(
      {changes("size, avc3", avcInBand, avcInBand, "320x240", "avc3", noSets, {"plain", "cut", "two tracks"}),
       changes("size, avc1", avcInBand, avcInBand, "320x240", "avc1", nothing, {"mono", "early", "far"}),
       changes("size, hev1", hev1InBand, hev1InBand, "320x240", "hev1", noSets, {"plain", "late"}),
       changes("PPS, avc1", avcInBand, cavlc, "160x120", "avc1", nothing, {"plain"})});
  const auto gaps = joinedKinds({audioDamage("a gap", lost(2.5, 2.9),
                                             {"plain", "mono", "cut", "late", "early", "far", "two tracks", "44.1 kHz",
                                              "no B-frames", "no lists"}),
                                 audioDamage("a gap of 80 ms", lost(2.6, 2.66), {"cut"}),
                                 audioDamage("a gap", lost(2.5, 2.9, 24000), {"24 kHz"})});
  const auto stamps = joinedKinds(
      {audioDamage("moved", "setts=ts='if(gt(N,120),TS+24000,TS)'", {"plain", "mono", "late", "far", "44.1 kHz"}),
       audioDamage("overlap", "setts=ts='if(gt(N,120),TS-14336,TS)'", {"plain", "early"}),
       audioDamage("starts late", "setts=ts='if(gt(N,0),TS+14400,TS)'", {"plain", "mono", "no lists"})});
  const auto drift =
      joinedKinds({audioDamage("+2 %", "setts=ts='round(TS*1.02)'", {"plain", "late", "44.1 kHz", "two tracks"}, 6),
                   audioDamage("-2 %", "setts=ts='round(TS*0.98)'", {"early"}, 6),
                   audioDamage("+0.5 %", "setts=ts='round(TS*1.005)'", {"cut"}, 40),
                   audioDamage("-0.5 %", "setts=ts='round(TS*0.995)'", {"late"}, 40)});
  const auto lists = joinedKinds(
      {badList("behind the media", "soun", {{4000, 9999999}}, {"plain", "mono", "cut", "two tracks"}),
       badList("behind the media", "vide", {{4000, 9999999}}, {"plain", "no B-frames", "late"}),
       badList("-2", "soun", {{4000, -2}}, {"plain", "early"}), badList("-1024", "vide", {{4000, -1024}}, {"mono"}),
       badList("nothing but empty", "soun", {{300, -1}}, {"plain"})});
  return {{"AVCSets", avcSets}, {"HEVCSets", hevcSets}, {"MidStream", midStream}, {"Gaps", gaps},
          {"Stamps", stamps},   {"Drift", drift},       {"Lists", lists},         {"Layouts", layouts()}};
}

}  // namespace tarn::test
