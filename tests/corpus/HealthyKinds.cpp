#include "corpus/Kinds.h"
#include "support/BoxBuilder.h"

namespace tarn::test {
namespace {

constexpr auto noted = Kind::Result::noted;
constexpr auto changed = Kind::Result::changed;
constexpr Allowed otherAudio{.audio = true};
constexpr Allowed oneEntry{.entries = 1};

/// Audio or video later by so many seconds, the rest as it is.
Maker late(const std::string& seconds, const ClipRecipe& recipe = {}) {
  return made("-i {0} -itsoffset " + seconds + " -i {0} -map 0:v -map 1:a -c copy", {recipe});
}
Maker early(const std::string& seconds, const ClipRecipe& recipe = {}) {
  return made("-itsoffset " + seconds + " -i {0} -i {0} -map 0:v -map 1:a -c copy", {recipe});
}
Maker cut(const std::string& options, const ClipRecipe& recipe = {}) {
  return made(options + " -i {0} -c copy", {recipe});
}
Maker copied(const std::string& options, const ClipRecipe& recipe = {}) {
  return made("-i {0} -map 0 -c copy " + options, {recipe});
}

/// The first clip with an edit list for each track; its movie has 1000 ticks, its video 12800, its audio 48000, and
/// both begin at 1024.
Maker listed(const std::vector<std::pair<int32_t, int32_t>>& video,
             const std::vector<std::pair<int32_t, int32_t>>& audio, const ClipRecipe& recipe = {}) {
  return edited(made(recipe), {list("vide", video), list("soun", audio)});
}

Maker withSecond(const std::string& options, const ClipRecipe& first) {
  return made("-i {0} -i {1} -map 0:v -map 0:a -map 1:a -c copy " + options, {first, {.video = ""}});
}

Edit first(const Bytes& box, const std::string& parent = "") {
  return [=](BoxTree& moov) {
    BoxTree& place = parent.empty() ? moov : moov.track("vide")->at(parent);
    place.children.insert(place.children.begin(), BoxTree(box));
  };
}

std::vector<Kind> codecs() {
  return {
      {"AVC with B-frames", made(ClipRecipe{})},
      {"AVC without", made({.video = avcPlain})},
      {"AVC, sets in the samples too", made({.video = avcInBand})},
      {"AVC, interlaced", made({.video = avc + " -flags +ildct+ilme", .size = "160x136"})},
      {"HEVC under hvc1", made({.video = hvc1})},
      {"HEVC under hev1", made({.video = hev1}), changed, oneEntry},
      {"HEVC under hev1, sets in the samples too", made({.video = hev1InBand}), changed, oneEntry},
      {"HEVC under hvc1, sets in the samples too", made({.video = hev1InBand + " -tag:v hvc1"})},
      {"HEVC under hev1, late", late("0.3", {.video = hev1}), changed, oneEntry},
      {"MPEG-4", made({.video = "-c:v mpeg4 -bf 2 -g 25"})},
      {"ProRes", made({.video = "-c:v prores -pix_fmt yuv422p10le", .seconds = 2, .ending = ".mov"})},
      {"MJPEG", made({.video = "-c:v mjpeg -pix_fmt yuvj420p", .seconds = 2, .ending = ".mov"})},
      {"AVC in mov", made({.ending = ".mov"})},
  };
}

std::vector<Kind> audio() {
  const auto of = [](const std::string& options, int rate = 48000) {
    return made({.audio = options, .audioRate = rate});
  };
  return {
      {"mono", of(mono)},
      {"5.1", of("-c:a aac -ac 6")},
      {"24 kHz", of(stereo, 24000)},
      {"44.1 kHz, mono", of(mono, 44100)},
      {"8 kHz", of(stereo, 8000)},
      {"AC-3", of(ac3), changed, otherAudio},
      {"AC-3, late", late("0.3", {.audio = ac3}), changed, otherAudio},
      {"AC-3, early", early("0.3", {.audio = ac3}), changed, otherAudio},
      {"AC-3, cut", cut("-ss 1.3", {.audio = ac3}), changed, otherAudio},
      {"AC-3, longer than the pictures", made({.audio = ac3, .seconds = 3, .audioSeconds = 4}), changed, otherAudio},
      {"AC-3, a pause", edited(of(ac3), {list("soun", {{2000, 256}, {500, -1}, {1500, 96256}})}), changed, otherAudio},
      {"Opus", of("-c:a libopus"), changed, otherAudio},
      {"MP3", of("-c:a libmp3lame -ac 2"), changed, otherAudio},
      {"longer than the pictures", made({.seconds = 3, .audioSeconds = 5})},
      {"shorter than the pictures", made({.audioSeconds = 2})},
      {"alone", made({.video = "", .audio = mono})},
      {"none", made({.audio = ""})},
  };
}

std::vector<Kind> offsets() {
  return {
      {"late by 20 ms", late("0.02")},
      {"late by 51 ms", late("0.051")},
      {"late by 300 ms, mono", late("0.3", {.audio = mono})},
      {"early by 20 ms", early("0.02")},
      {"early by 51 ms", early("0.051")},
      {"early by 300 ms", early("0.3")},
      {"cut", cut("-ss 1.3")},
      {"cut, HEVC", made("-ss 1.3 -i {0} -c copy -tag:v hvc1", {{.video = hvc1}})},
      {"cut, mono", cut("-ss 2.7", {.audio = mono})},
      {"cut at both ends", made("-ss 1.3 -i {0} -t 1.7 -c copy", {{}})},
      {"cut behind", copied("-ss 1.3")},
      {"no lists", made({.video = avcPlain, .muxer = "-use_editlist 0"})},
      {"no lists, B-frames", made({.muxer = "-use_editlist 0"}), changed},
      {"negative composition offsets", made({.muxer = "-movflags negative_cts_offsets"})},
  };
}

std::vector<Kind> lists() {
  const std::vector<std::pair<int32_t, int32_t>> plain = {{4000, 1024}};
  return {
      {"a pause", listed({{2000, 1024}, {500, -1}, {2000, 26624}}, {{2000, 1024}, {500, -1}, {2000, 97024}})},
      {"a pause in the audio", listed(plain, {{2000, 1024}, {500, -1}, {1500, 97024}})},
      {"a scene left out", listed({{1000, 1024}, {2000, 26624}}, {{1000, 1024}, {2000, 97024}})},
      {"trimmed", listed({{2000, 13824}}, {{2000, 49024}})},
      {"audio trimmed", listed(plain, {{400, -1}, {3000, 20224}})},
      {"audio trimmed, mono", listed(plain, {{400, -1}, {3000, 20224}}, {.audio = mono})},
      {"two entries that adjoin", listed({{2000, 1024}, {2000, 26624}}, {{2000, 1024}, {2000, 97024}})},
      {"to the end of the media", listed({{0, 1024}}, {{0, 1024}})},
      {"a first composition time of -1", edited(made({.video = avcPlain}), {list("vide", {{4000, 1}})})},
      {"late video", listed({{80, -1}, {4000, 1024}}, plain)},
  };
}

std::vector<Kind> tracks() {
  const std::string text = "-i " + subtitles().string() + " -map 0 -map 1 -c copy -c:s mov_text -metadata title=Title";
  return {
      {"two audio tracks", withSecond("-metadata:s:a:1 language=fra", {})},
      {"two audio tracks, AC-3", withSecond("-metadata:s:a:1 language=fra", {.audio = ac3}), changed, otherAudio},
      {"two video tracks",
       made("-i {0} -i {1} -map 0:v -map 1:v -map 0:a -c copy", {{}, {.video = avcPlain, .audio = ""}})},
      {"text and title", made("-i {0} " + text, {{}})},
      {"text and title, Opus", made("-i {0} " + text, {{.audio = "-c:a libopus"}}), changed, otherAudio},
      {"chapters, AC-3",
       made("-i {0} -i " + chapters().string() + " -map 0 -map_metadata 1 -map_chapters 1 -c copy", {{.audio = ac3}}),
       changed, otherAudio},
      {"place", copied("-metadata location=+48.2-016.3/")},
      {"rotated, mono", copied("-metadata:s:v rotate=90", {.audio = mono})},
      {"VFR", made({.video = avc + " -vf select='not(between(mod(n,11),3,4))' -vsync vfr"})},
      {"one picture a second", made({.video = avc, .rate = "1"})},
      {"time code", copied("-timecode 01:00:00:00", {.ending = ".mov"})},
  };
}

std::vector<Kind> layouts() {
  const Bytes unknown = box("zzzz", {Bytes(5, 7)});
  const auto farLate = withFarMoov(late("0.3", {.video = avcPlain}));
  return {
      {"moov far behind, late", farLate},
      {"moov far behind, hev1", withFarMoov(made({.video = hev1})), changed, oneEntry},
      {"movie timescale 600",
       made("-i {0} -itsoffset 0.3 -i {0} -map 0:v -map 1:a -c copy -movie_timescale 600", {{}})},
      {"movie timescale 90000", copied("-movie_timescale 90000")},
      {"video timescale 12345", copied("-video_track_timescale 12345")},
      {"fragmented", made("-i {0} -c copy -movflags frag_keyframe+empty_moov", {{.audio = mono}}), changed},
      {"fragmented, hev1", made("-i {0} -c copy -movflags frag_keyframe", {{.video = hev1}}), changed, oneEntry},
      {"moov ahead", copied("-movflags faststart")},
      {"unknown boxes", edited(made(ClipRecipe{}), {first(unknown), first(unknown, "mdia/minf/stbl")})},
      {"unknown boxes, AC-3", edited(made({.audio = ac3}), {first(unknown), first(unknown, "mdia/minf/stbl")}), changed,
       otherAudio},
      {"a box ahead of the tracks, hev1", edited(made({.video = hev1}), {first(unknown)}), changed, oneEntry},
      {"stss behind the last sample, hev1",
       edited(made({.video = hev1}),
              {field("vide", "mdia/minf/stbl/stss", 8, 1), field("vide", "mdia/minf/stbl/stss", 20, 9999)}),
       changed, oneEntry},
      {"mdhd durations all ones",
       edited(made(ClipRecipe{}),
              {field("vide", "mdia/mdhd", 16, UINT32_MAX), field("soun", "mdia/mdhd", 16, UINT32_MAX)}),
       noted},
  };
}

}  // namespace

std::vector<KindGroup> healthyKinds() {
  return {{"Codecs", codecs()}, {"Audio", audio()},   {"Offsets", offsets()},
          {"Lists", lists()},   {"Tracks", tracks()}, {"Layouts", layouts()}};
}

}  // namespace tarn::test
