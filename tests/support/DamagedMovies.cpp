#include "support/DamagedMovies.h"

#include <algorithm>
#include <stdexcept>

#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/ProbedMovie.h"

namespace tarn::test {
namespace {

const std::string stsd = sampleTable + "/stsd/";

VideoRecipe withLateSound(VideoRecipe recipe) {
  recipe.more = words("-itsoffset 0.3 -f lavfi -i sine=r=48000:d=2 -map 0 -map 1 -c:a aac -ac 2");
  return recipe;
}

/// Two seconds with B-frames and sound of two channels; `more` is what else ffmpeg shall do.
Bytes withSound(const std::string& more = "-c:a aac") {
  const std::string inputs = "-f lavfi -i sine=r=48000:d=2 -map 0:v -map 1:a -ac 2 ";
  return contentsOf(encodedVideo({.parameters = "b-adapt=0", .more = words(inputs + more)}));
}

Bytes cutOff(Bytes movie) {
  movie.resize(movie.size() * 2 / 3);
  return movie;
}

/// The same sound with the first entry of its edit list from another media time on.
Bytes withMediaTimeOfSound(uint32_t mediaTime) {
  BoxEditor editor(withSound());
  editor.setField(editor.all("moov/trak/edts/elst").at(1).offset + 20, mediaTime);
  return editor.bytes;
}

Bytes withOverrunningChild(const Bytes& movie) {
  BoxEditor editor(movie);
  editor.insert(stsd + "hev1", editor.at(stsd + "hev1").end(), boxClaiming(500, "colr", {Bytes(12)}));
  return editor.bytes;
}

Bytes renamed(const Bytes& movie, const char* path, const char* type) {
  BoxEditor editor(movie);
  editor.rename(stsd + path, type);
  return editor.bytes;
}

}  // namespace

VideoRecipe inBand(bool isHEVC, const std::string& size) {
  return {.codec = isHEVC ? "libx265" : "libx264", .parameters = "repeat-headers=1:keyint=20", .size = size};
}

Bytes withoutParameterSets(const Bytes& movie, bool isHEVC) {
  BoxEditor editor(movie);
  const std::string entry = sampleTable + (isHEVC ? "/stsd/hev1" : "/stsd/avc1");
  editor.rename(entry + (isHEVC ? "/hvcC" : "/avcC"), "free");
  if (!isHEVC) editor.rename(entry, "avc3");
  return editor.bytes;
}

const std::vector<DamagedMovie>& damagedMovies() {
  static const std::vector<DamagedMovie> movies = [] {
    const Bytes hevc = contentsOf(encodedVideo(inBand(true)));
    const Bytes avc = contentsOf(encodedVideo(inBand(false)));
    const auto ofTwoSizes = [](bool isHEVC) {
      return contentsOf(joinedVideo({inBand(isHEVC), inBand(isHEVC, "256x160")}));
    };
    return std::vector<DamagedMovie>{
        {"hev1 with an empty hvcC", withoutParameterSets(hevc, true)},
        {"avc3 without avcC", withoutParameterSets(avc, false)},
        {"hev1 with late sound", withoutParameterSets(contentsOf(encodedVideo(withLateSound(inBand(true)))), true)},
        {"avc1 with late sound", contentsOf(encodedVideo(withLateSound(inBand(false))))},
        {"HEVC of two sizes", ofTwoSizes(true)},
        {"AVC of two sizes", withoutParameterSets(ofTwoSizes(false), false)},
        {"avc3 with avcC", renamed(avc, "avc1", "avc3")},
        {"avc1", avc},
        {"overrunning child", withOverrunningChild(withoutParameterSets(hevc, true))},
        {"tail", joined({withoutParameterSets(hevc, true), Bytes(5, 7)})},
        {"no sets anywhere", withoutParameterSets(contentsOf(encodedVideo({})), false)},
        {"encv", renamed(hevc, "hev1", "encv")},
        {"no moov", box("ftyp", {Bytes(8)})},
        {"B-frames and sound", withSound()},
        {"AC-3 sound", withSound("-c:a ac3")},
        {"a gap in the sound", withSound("-c:a aac -bsf:a noise=drop='between(n,40,59)'")},
        {"a list of -2", withMediaTimeOfSound(static_cast<uint32_t>(-2))},
        {"a list behind the media", withMediaTimeOfSound(10'000'000)},
        {"no lists", withSound("-c:a aac -use_editlist 0")},
        {"fragments", withSound("-c:a aac -movflags frag_keyframe+empty_moov")},
        {"cut off", cutOff(withSound("-c:a aac -movflags faststart"))},
    };
  }();
  return movies;
}

const Bytes& damagedMovie(const std::string& name) {
  auto found = std::ranges::find(damagedMovies(), name, &DamagedMovie::name);
  if (found == damagedMovies().end()) throw std::runtime_error("no movie " + name);
  return found->bytes;
}

}  // namespace tarn::test
