#include <fmt/format.h>

#include "corpus/Kinds.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/MediaMaker.h"
#include "support/ProbedMovie.h"

namespace tarn::test {
namespace {

using enum Outcome;
constexpr Allowed otherAudio{.audio = true};
constexpr Allowed oneEntry{.entries = 1};

/// Audio or video later by so many seconds, the rest as it is.
Maker late(const std::string& seconds, const ClipRecipe& recipe = {}) {
  return made("-i {0} -itsoffset " + seconds + " -i {0} -map 0:v -map 1:a -c copy", {recipe});
}
Maker early(const std::string& seconds) {
  return made("-itsoffset " + seconds + " -i {0} -i {0} -map 0:v -map 1:a -c copy", {{}});
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
             const std::vector<std::pair<int32_t, int32_t>>& audio) {
  return edited(made(ClipRecipe{}), {list("vide", video), list("soun", audio)});
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
      {"AC-3", of(ac3), changed, otherAudio},
      {"AC-3, late", late("0.3", {.audio = ac3}), changed, otherAudio},
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
      {"late by 51 ms", late("0.051")},
      {"late by 300 ms, mono", late("0.3", {.audio = mono})},
      {"early by 20 ms", early("0.02")},
      {"early by 51 ms", early("0.051")},
      {"early by 300 ms", early("0.3")},
      {"cut", cut("-ss 1.3")},
      {"cut, HEVC", made("-ss 1.3 -i {0} -c copy -tag:v hvc1", {{.video = hvc1}})},
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
      {"video timescale 12345", copied("-video_track_timescale 12345")},
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

/// The beginning of a stream and these of its four segments, one behind the other.
Maker segments(const std::string& names) {
  return [=](const Path& directory) {
    runProcess(
        words(fmt::format("ffmpeg -v error -y -i {0} -c copy -f hls -hls_time 1 -hls_segment_type fmp4 "
                          "-hls_playlist_type vod -hls_segment_filename {1}/%d.m4s {1}/list.m3u8",
                          clip({}).string(), directory.string())));
    Bytes movie;
    for (const std::string& name : words("init.mp4 " + names)) movie = joined({movie, contentsOf(directory / name)});
    const Path file = directory / (makeUUID() + ".mp4");
    PosixFileManager files(directory);
    writeFileAtomically(files, file, movie);
    return file;
  };
}

/// They become plain movies. What ffprobe says of the first packet of sound depends on the kind of movie.
std::vector<Kind> fragments() {
  std::vector<Kind> kinds;
  for (const std::string flags :
       {"frag_keyframe", "frag_keyframe+empty_moov", "frag_keyframe+delay_moov",
        "frag_keyframe+empty_moov+default_base_moof", "frag_keyframe+empty_moov+omit_tfhd_offset"}) {
    const Allowed allowed{.audio = flags.ends_with("delay_moov")};
    kinds.push_back({flags, made("-i {0} -c copy -movflags " + flags, {{.audio = mono}}), changed, allowed});
  }
  for (const std::string names : {"0.m4s 1.m4s 2.m4s 3.m4s", "2.m4s 3.m4s", "0.m4s 1.m4s init.mp4 2.m4s 3.m4s"}) {
    kinds.push_back({names, segments(names), changed});
  }
  const std::string gap = "0.m4s 3.m4s", twice = "0.m4s 1.m4s 1.m4s 2.m4s 3.m4s";
  kinds.push_back({gap, segments(gap), changed, {.audio = true, .audioStays = false}});
  kinds.push_back({twice, segments(twice), changed, {}, segments("0.m4s 1.m4s 2.m4s 3.m4s")});
  return kinds;
}

}  // namespace

std::vector<KindGroup> healthyKinds() {
  return {{"Codecs", codecs()}, {"Audio", audio()},     {"Offsets", offsets()},    {"Lists", lists()},
          {"Tracks", tracks()}, {"Layouts", layouts()}, {"Fragments", fragments()}};
}

}  // namespace tarn::test
