#include "reliability/RandomMovie.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/host/PosixFileManager.h"
#include "support/BoxEditor.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

class Drawing {
 public:
  explicit Drawing(uint64_t seed) : random_(seed), isHealthy_(oneIn(3)) {}

  RandomMovie movie() {
    mux();
    moov_ = BoxTree(layout_->moov);
    if (channels_ > 0 && !isHealthy_) damageSound();
    drawEditLists();
    drawFields();
    scatterUnknownBoxes();
    drawLayout();
    BoxTree* damaged = isHealthy_ ? nullptr : moov_.track(pick<std::string>({"", "", "vide", "soun"}));
    if (damaged) setList(*damaged, {});
    const Bytes truth = laidOut();
    damageParameterSets();
    if (damaged) setList(*damaged, damagedList());
    return {(isHealthy_ ? "healthy" : "damaged") + story_, laidOut(), truth, isHealthy_, lacksSets_};
  }

 private:
  uint32_t below(size_t limit) { return static_cast<uint32_t>(random_() % limit); }
  bool oneIn(uint32_t count) { return below(count) == 0; }
  template <typename T>
  T pick(std::initializer_list<T> choices) {
    return *(choices.begin() + below(choices.size()));
  }
  template <typename... Values>
  void tell(fmt::format_string<Values...> format, Values&&... told) {
    story_ += ", " + fmt::format(format, std::forward<Values>(told)...);
  }
  Bytes randomBytes(size_t count) {
    Bytes bytes(count);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random_());
    return bytes;
  }

  Path pictures() {
    isHEVC_ = oneIn(2);
    repeatsSets_ = isHealthy_ ? isHEVC_ || oneIn(2) : !oneIn(8);
    const int bFrames = pick({0, 2});
    const auto change = isHealthy_ || !repeatsSets_ ? std::string() : pick<std::string>({"", "", "", "size", "sets"});
    VideoRecipe recipe{.codec = isHEVC_ ? "libx265" : "libx264",
                       .parameters = fmt::format("keyint=20:bframes={}:repeat-headers={:d}", bFrames, repeatsSets_),
                       .more = {"-r", pick<std::string>({"25", "30000/1001"})}};
    tell("{} {} at {}", recipe.codec, recipe.parameters, recipe.more[1]);
    if (change.empty()) return encodedVideo(recipe);
    tell("the {} in mid-stream", change);
    seconds_ = 4;
    VideoRecipe second = recipe;
    change == "size" ? second.size = "256x160" : second.parameters += isHEVC_ ? ":ctu=16" : ":cabac=1";
    return joinedVideo({recipe, second});
  }

  Path sound() {
    rate_ = isHealthy_ ? pick({44100u, 48000u}) : pick({44100u, 48000u, 48000u, 48000u, 32000u, 24000u});
    channels_ = isHealthy_ || !oneIn(5) ? 2 : 1;
    tell("sound at {} Hz, {} channels", rate_, channels_);
    return madeByFFmpeg(words(fmt::format(
        "-f lavfi -i aevalsrc='0.8*sin(2*PI*1000*t)*lt(mod(t,0.5),0.04)':s={}:d={} -c:a aac -ac {} -b:a 96k", rate_,
        seconds_, channels_)));
  }

  void mux() {
    const std::string video = pictures();
    const std::string audio = oneIn(6) ? "" : sound();
    const auto late = audio.empty() ? 0 : pick({0.0, 0.0, 0.02, 0.3, -0.03, -0.3});
    const TempDirectory place;
    const Path file = place / "muxed.mp4";
    auto command = words(fmt::format("ffmpeg -v error -itsoffset {} -i {}", late < 0 ? -late : 0, video));
    if (!audio.empty()) {
      const auto order = pick<std::string>({"-map 0:v -map 1:a", "-map 1:a -map 0:v"});
      for (const auto& word : words(fmt::format("-itsoffset {} -i {} {}", late > 0 ? late : 0, audio, order))) {
        command.push_back(word);
      }
      tell("late by {} s", late);
    }
    const bool lacksList = !isHealthy_ && oneIn(6), hasNegativeOffsets = oneIn(4);
    const int videoTimescale = pick({90000, 30000}), movieTimescale = pick({1000, 600, 90000, 44100, 30});
    const auto tag = isHEVC_ ? pick<std::string>({"hev1", "hvc1"}) : "avc1";
    const auto options = fmt::format(
        "-c copy -tag:v {} -movie_timescale {} -video_track_timescale {}{}{}", tag, movieTimescale, videoTimescale,
        hasNegativeOffsets ? " -movflags negative_cts_offsets" : "", lacksList ? " -use_editlist 0" : "");
    tell("{}", options);
    for (const auto& word : words(options + " " + file.string())) command.push_back(word);
    const auto muxed = runProcess(command);
    if (muxed.exitCode != 0) throw std::runtime_error(muxed.output);
    PosixFileManager files(place.path());
    layout_.emplace(readFile(files, file));
  }

  void damageParameterSets() {
    if (isHealthy_ && !isHEVC_) return;
    BoxTree& entry = moov_.track("vide")->at("mdia/minf/stbl/stsd").children.front();
    const auto box = entry.child(isHEVC_ ? "hvcC" : "avcC");
    const uint32_t way = below(4);
    if (isHEVC_ && way < 2) {
      // The fixed 23 bytes of the record stay, without an array (ISO/IEC 14496-15 8.3.3).
      tell("an empty hvcC");
      box->fields.resize(23);
      box->fields[22] = 0;
      lacksSets_ = !repeatsSets_;
    } else if (!isHEVC_ && way > 0) {
      if (way > 1) entry.type = "avc3";
      if (way < 3) entry.children.erase(box);
      lacksSets_ = way < 3 && !repeatsSets_;
      tell("{} {} avcC", entry.type, way < 3 ? "without" : "with");
    }
  }

  /// Jumps, lags and other lengths of the sound's packets, all by the tables.
  void damageSound() {
    BoxTree& track = *moov_.track("soun");
    BoxTree& stbl = track.at("mdia/minf/stbl");
    const uint32_t packets = readUInt32(stbl.at("stsz").fields, 8).value();
    const uint32_t at = 20 + below(packets - 40);
    const uint32_t ticks = pick({50u, 70u, 200u, 700u}) * rate_ / 1000;
    const auto damage = pick<std::string>({"", "", "a hole", "a hole that the length denies", "a hole made up for",
                                           "a hole made up for", "drift", "a lag"});
    if (damage.empty()) return;
    tell("{} of {} ticks from packet {} on", damage, ticks, at);
    if (damage == "a lag") {
      const auto back = values({0x01000000, 2, at, 0, packets - at, 0 - ticks});
      stbl.children.emplace_back(box("ctts", {back}));
      return;
    }
    // An overlap behind it that is as long makes up for a hole: the sound as a whole keeps its length.
    const auto rows = damage == "drift" ? fullBox("stts", {1, packets, 1024 + ticks / 500})
                      : damage == "a hole made up for"
                          ? fullBox("stts", {5, at - 1, 1024, 1, 5024, 10, 1024, 4, 24, packets - at - 14, 1024})
                          : fullBox("stts", {3, at - 1, 1024, 1, 1024 + ticks, packets - at, 1024});
    stbl.at("stts") = BoxTree(rows);
    const uint32_t longer = damage == "a hole" ? ticks : damage == "drift" ? packets * (ticks / 500) : 0;
    BoxTree& header = track.at("mdia/mdhd");
    writeUInt32(header.fields, packets * 1024 + longer, 16);
    const auto list = track.child("edts");
    if (longer == 0 && list != track.children.end()) track.children.erase(list);
    if (track.child("edts") == track.children.end()) return;
    BoxTree& edits = track.at("edts/elst");
    const auto inMovieTime = uint64_t{longer} * readUInt32(moov_.at("mvhd").fields, 12).value() / rate_;
    const size_t last = edits.fields.size() - 12;
    writeUInt32(edits.fields, readUInt32(edits.fields, last).value() + static_cast<uint32_t>(inMovieTime), last);
  }

  /// A track's list in the place of the one that it has; an empty one removes it.
  static void setList(BoxTree& track, const Bytes& list) {
    if (const auto old = track.child("edts"); old != track.children.end()) track.children.erase(old);
    if (!list.empty()) track.children.emplace(track.child("mdia"), box("edts", {list}));
  }

  /// Lists that show the whole track or hide parts of it, late or at once, in one piece or with a pause.
  void drawEditLists() {
    constexpr uint32_t none = 0xFFFFFFFF, normal = 0x10000;
    const uint32_t second = readUInt32(moov_.at("mvhd").fields, 12).value();
    for (const char* handler : {"vide", "soun"}) {
      BoxTree* track = moov_.track(handler);
      if (!track || !oneIn(2)) continue;
      BoxTree& stbl = track->at("mdia/minf/stbl");
      const auto offsets = stbl.child("ctts");
      const bool hasOffsets = offsets != stbl.children.end();
      const auto first = static_cast<int32_t>(readUInt32((hasOffsets ? *offsets : stbl.at("stts")).fields, 12).value());
      // The second group of pictures begins at picture 20; packets may begin anywhere.
      const Bytes& deltas = stbl.at("stts").fields;
      const uint32_t delta = readUInt32(deltas, deltas.size() - 4).value();
      const uint32_t begin = static_cast<uint32_t>(std::max(hasOffsets ? first : 0, 0)), later = begin + 20 * delta;
      const uint32_t empty = second * pick({20u, 40u, 80u, 500u}) / 1000;
      const uint32_t whole = second * static_cast<uint32_t>(seconds_), part = second * 6 / 10;
      const std::vector<Bytes> lists = {
          {},
          fullBox("elst", {1, whole, begin, normal}),
          fullBox("elst", {1, 0, later, normal}),
          fullBox("elst", {1, part, begin, normal}),
          fullBox("elst", {2, empty, none, normal, part, later, normal}),
          fullBox("elst", {3, empty, none, normal, empty, none, normal, whole, begin, normal}),
          fullBox("elst", {3, part, begin, normal, empty, none, normal, part, later, normal})};
      const uint32_t way = below(lists.size());
      tell("list {} of {}: {} of {} at {} and {} behind {}", way, handler, part, whole, begin, later, empty);
      setList(*track, lists[way]);
    }
  }

  /// It counts as none.
  Bytes damagedList() {
    const uint32_t mediaTime = pick({0xFFFFFFFFu, 0xFFFFFFFEu, 0x7FFFFFFFu});
    tell("a list of one entry at {}", static_cast<int32_t>(mediaTime));
    return fullBox("elst", {1, 500, mediaTime, 0x10000});
  }

  /// Times of creation and change, the group, the language: nothing that a player goes by.
  void drawFields() {
    const auto scramble = [&](BoxTree& box, size_t begin, size_t end) {
      std::ranges::copy(randomBytes(end - begin), box.fields.begin() + static_cast<ptrdiff_t>(begin));
    };
    scramble(moov_.at("mvhd"), 4, 12);
    for (BoxTree& track : moov_.children) {
      if (track.type != "trak") continue;
      scramble(track.at("tkhd"), 4, 12);
      scramble(track.at("tkhd"), 34, 36);
      scramble(track.at("mdia/mdhd"), 4, 12);
    }
  }

  /// Each draw is a statement: compilers evaluate the arguments of a call in orders of their own.
  Bytes unknownBox() {
    const Bytes contents = randomBytes(below(40));
    return box(fmt::format("z{:03}", below(1000)), {contents});
  }

  void addUnknownBox(std::vector<BoxTree>& children) {
    const Bytes added = unknownBox();
    children.emplace(children.begin() + below(children.size() + 1), added);
  }

  void scatterUnknownBoxes() {
    for (const char* handler : {"vide", "soun"}) {
      BoxTree* track = moov_.track(handler);
      if (!track) continue;
      BoxTree& stbl = track->at("mdia/minf/stbl");
      BoxTree* places[] = {track, &track->at("mdia"), &track->at("mdia/minf"), &stbl,
                           &stbl.at("stsd").children.front()};
      // The innermost first, so that the others stay where they are.
      for (auto place = std::rbegin(places); place != std::rend(places); ++place) {
        std::vector<BoxTree>& children = (*place)->children;
        if (oneIn(3)) addUnknownBox(children);
      }
    }
    for (int i = 0; i < 2; ++i) addUnknownBox(moov_.children);
  }

  /// The moov is ahead of the media, behind them or between two parts of them; what stands last may have no size.
  void drawLayout() {
    const std::string place = pick<std::string>({"first", "last", "between"});
    const bool isMoovLast = place == "last";
    hasLongOffsets_ = oneIn(3);
    const auto chunks = layout_->chunks();
    const uint64_t begin = place == "between" ? chunks[chunks.size() / 2] : 0;
    const auto mdat = pick({Kind::mdat, Kind::longMdat, isMoovLast ? Kind::mdat : Kind::openMdat});
    const auto moov = isMoovLast ? pick({Kind::moov, Kind::openMoov}) : Kind::moov;
    pieces_ = {{moov}, {mdat, {}, begin}};
    if (isMoovLast) std::swap(pieces_[0], pieces_[1]);
    for (int i = 0; i < 2; ++i) {
      const Bytes added = unknownBox();
      pieces_.insert(pieces_.begin() + below(2), {Kind::raw, added});
    }
    if (begin > 0) pieces_.insert(pieces_.begin(), {Kind::mdat, {}, 0, begin});
    pieces_.insert(pieces_.begin(), {Kind::raw, layout_->ftyp});
    tell("moov {} of kind {}, mdat of kind {}", place, static_cast<int>(moov), static_cast<int>(mdat));
  }

  Bytes laidOut() {
    layout_->moov = moov_.bytes();
    if (hasLongOffsets_) layout_->useLongOffsets();
    return layout_->build(pieces_);
  }

  using Kind = MovieLayout::Piece::Kind;

  std::mt19937_64 random_;
  const bool isHealthy_;
  std::string story_;
  bool isHEVC_ = false;
  bool repeatsSets_ = true;
  bool lacksSets_ = false;
  int seconds_ = 2;
  int channels_ = 0;
  uint32_t rate_ = 48000;
  std::optional<MovieLayout> layout_;
  BoxTree moov_{box("moov")};
  std::vector<MovieLayout::Piece> pieces_;
  bool hasLongOffsets_ = false;
};

}  // namespace

RandomMovie randomMovie(uint64_t seed) {
  return Drawing(seed).movie();
}

}  // namespace tarn::test
