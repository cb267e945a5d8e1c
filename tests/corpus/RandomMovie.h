#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "corpus/Clips.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxEditor.h"
#include "support/ProbedMovie.h"

namespace tarn::test {

/// A movie put together at random of real pieces, healthy or damaged in some ways at once.
struct RandomMovie {
  std::string story;  ///< what was drawn
  Path file;
  Path truth;  ///< the same before its parameter sets and edit lists were damaged: what it should show
  bool hasDamagedSound;
};

/// Draws a movie, the same for the same seed.
class RandomMovieDrawing {
 public:
  explicit RandomMovieDrawing(uint64_t seed) : random_(seed) {}

  RandomMovie movie(const Path& directory) {
    layout_.emplace(contentsOf(pieces()));
    moov_ = BoxTree(layout_->moov);
    for (const char* handler : {"vide", "soun"}) drawList(handler);
    changeWhatNobodyPlays(moov_);
    parts_ =
        pick<std::string>({"ftyp uuid moov free mdat", "ftyp moov uuid longMdat free", "ftyp free moov openMdat",
                           "ftyp free mdat uuid moov", "ftyp longMdat uuid openMoov", "ftyp first moov uuid second",
                           "ftyp first moov free longSecond", "ftyp uuid first moov openSecond"});
    hasLongOffsets_ = oneIn(3);
    story_ += ", " + parts_;
    const auto damaged = pick<std::string>({"", "", "vide", "soun"});
    const bool hasDamagedList = moov_.track(damaged) != nullptr;
    if (hasDamagedList) withoutList(damaged)(moov_);
    const Path truth = write(directory / "truth.mp4");
    if (hasInBandSets_) damageParameterSets();
    if (hasDamagedList) edit("a damaged list", list(damaged, {{500, pick({-1, -2, INT32_MAX})}}));
    return {story_, write(directory / "clip.mp4"), truth, hasDamagedSound_};
  }

 private:
  uint32_t below(size_t limit) { return static_cast<uint32_t>(random_() % limit); }
  bool oneIn(uint32_t count) { return below(count) == 0; }
  template <typename T>
  T pick(std::initializer_list<T> choices) {
    return *(choices.begin() + below(choices.size()));
  }
  Bytes randomBytes(size_t count) {
    Bytes bytes(count);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random_());
    return bytes;
  }
  void edit(const std::string& what, const Edit& change) {
    story_ += ", " + what;
    change(moov_);
  }

  Path pictures() {
    isHEVC_ = oneIn(2);
    hasInBandSets_ = !oneIn(3);
    ClipRecipe recipe{.audio = "", .rate = pick<std::string>({"25", "30000/1001"})};
    recipe.video = isHEVC_ ? hasInBandSets_ ? hev1InBand : hev1 : hasInBandSets_ ? avcInBand : pick({avc, avcPlain});
    story_ = recipe.video + " at " + recipe.rate;
    if (!hasInBandSets_ || oneIn(2)) return clip(recipe);
    recipe.seconds = 2;
    ClipRecipe second = recipe;
    oneIn(2) ? second.size = "256x160" : second.video += isHEVC_ ? ":ctu=16" : ":cabac=0";
    story_ += ", then " + second.video + " of " + second.size;
    changesInMidStream_ = true;
    return joinedClips(recipe, second, mono, isHEVC_ ? "hev1" : "avc1");
  }

  /// Packets of sound that are lost or stamped otherwise, from 1.5 or 2.5 s on: far from a beep.
  std::string soundDamage(uint32_t rate) {
    const uint32_t at = pick({3u, 5u}) * rate / 2048 + 1, ticks = pick({50u, 70u, 200u, 600u}) * rate / 1000;
    hasDamagedSound_ = oneIn(2);
    if (!hasDamagedSound_) return "";
    const std::string ways[] = {
        fmt::format("noise=drop='between(n,{},{})'", at, at + std::max(1u, ticks / 1024)),
        fmt::format("setts=ts='if(gt(N,{}),TS+{},TS)'", at, ticks),
        fmt::format("setts=ts='if(gt(N,{}),TS-{},TS)'", at, ticks / 3),
        fmt::format("setts=ts='if(between(N,{},{}),TS+{},TS)'", at, at + 12, ticks / 3),
        fmt::format("setts=ts='round(TS*1.0{})'", pick({1, 2})),
    };
    return " -bsf:a " + ways[below(std::size(ways))];
  }

  /// Pictures and sound in one file. Each draw is a statement: compilers evaluate arguments in orders of their own.
  Path pieces() {
    const Path video = pictures();
    const ClipRecipe sound{
        .video = "", .audio = pick({stereo, stereo, mono}), .audioRate = pick({44100, 48000, 48000, 32000, 24000})};
    std::string arguments = "-i {0} -map 0:v";
    if (!oneIn(6)) {
      const auto late = pick<std::string>({"0", "0", "0.02", "0.3"});
      const auto order = pick<std::string>({"0:v -map 1:a", "1:a -map 0:v"});
      arguments = oneIn(2) ? "-itsoffset " + late + " -i {0} -i {1}" : "-i {0} -itsoffset " + late + " -i {1}";
      arguments += " -map " + order + soundDamage(static_cast<uint32_t>(sound.audioRate));
    }
    arguments += " -c copy -tag:v " + (isHEVC_ ? pick<std::string>({"hev1", "hvc1"}) : "avc1");
    arguments += pick<std::string>({"", " -movie_timescale 600", " -movie_timescale 90000", " -movie_timescale 44100"});
    arguments += pick<std::string>({"", " -video_track_timescale 30000"});
    const auto flags = pick<std::string>({"", "", "", " -movflags negative_cts_offsets", " -use_editlist 0"});
    arguments += flags;
    if (flags == " -use_editlist 0") hasDamagedSound_ = true;  // the first packet lasts until late sound goes on
    story_ += fmt::format(", {} at {} Hz, {}", sound.audio, sound.audioRate, arguments);
    return muxed(arguments, {video, clip(sound)});
  }

  /// A list that shows the whole track or hides parts of it, late or at once, in one piece or with a pause.
  void drawList(const std::string& handler) {
    BoxTree* track = moov_.track(handler);
    if (!track || track->child("edts") == track->children.end() || oneIn(2)) return;
    if (changesInMidStream_ && handler == "vide") return;  // after a pause ffmpeg takes the wrong sample entry
    const Bytes &old = track->at("edts/elst").fields, &deltas = track->at("mdia/minf/stbl/stts").fields;
    const auto number = [](const Bytes& fields, size_t at) {
      return static_cast<int32_t>(readUInt32(fields, at).value());
    };
    // The second group of pictures begins at picture 25; packets may begin anywhere.
    const int32_t begin = number(old, old.size() - 8), later = begin + 25 * number(deltas, deltas.size() - 4);
    const int32_t second = number(moov_.at("mvhd").fields, 12), part = second * 6 / 10, whole = 4 * second;
    const int32_t empty = second * pick({20, 40, 80, 500}) / 1000;
    const std::vector<std::pair<int32_t, int32_t>> lists[] = {
        {{whole, begin}},
        {{0, later}},
        {{part, begin}},
        {{empty, -1}, {part, later}},
        {{empty, -1}, {empty, -1}, {whole, begin}},
        {{part, begin}, {empty, -1}, {part, later}},
    };
    const uint32_t way = below(std::size(lists));
    edit(fmt::format("list {} of {}, {} behind", way, handler, empty), list(handler, lists[way]));
  }

  /// Times of creation and change, and boxes of nobody's.
  void changeWhatNobodyPlays(BoxTree& tree) {
    for (BoxTree& child : tree.children) changeWhatNobodyPlays(child);
    if (tree.type == "mvhd" || tree.type == "tkhd" || tree.type == "mdhd") {
      std::ranges::copy(randomBytes(8), tree.fields.begin() + 4);
    }
    if (tree.children.empty() || tree.type == "edts" || tree.type == "stsd" || !oneIn(3)) return;
    const Bytes contents = randomBytes(below(40)), added = box(fmt::format("z{:03}", below(1000)), {contents});
    tree.children.emplace(tree.children.begin() + below(tree.children.size() + 1), added);
  }

  void damageParameterSets() {
    const auto tag = isHEVC_ ? pick<std::string>({"hev1", "hvc1"}) : pick<std::string>({"avc1", "avc3"});
    edit("as " + tag, tagged(tag));
    if (oneIn(2))
      edit("no sets", keepingSets({}));
    else if (oneIn(2))
      edit("no configuration", withoutConfiguration());
  }

  Path write(const Path& file) {
    layout_->moov = moov_.bytes();
    if (hasLongOffsets_) layout_->useLongOffsets();
    PosixFileManager files(file.parent_path());
    writeFileAtomically(files, file, layout_->build(parts_));
    return file;
  }

  std::mt19937_64 random_;
  std::string story_;
  bool isHEVC_ = false, hasInBandSets_ = false, changesInMidStream_ = false;
  bool hasDamagedSound_ = false, hasLongOffsets_ = false;
  std::optional<MovieLayout> layout_;
  BoxTree moov_{box("moov")};
  std::string parts_;
};

}  // namespace tarn::test
