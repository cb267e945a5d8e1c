#include "sync/FlashBeep.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>

#include "mp4/DataExtensions.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/MediaMaker.h"

namespace tarn::test {
namespace {

using Arguments = std::vector<std::string>;

Arguments together(std::initializer_list<Arguments> parts) {
  Arguments all;
  for (const Arguments& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

Path tracksTogether(int seconds, int channels) {
  return madeByFFmpeg(words(
      fmt::format("-f lavfi -i color=black:s=192x144:r=25:d={0},drawbox=enable='lt(mod(t,1),0.02)':color=white:t=fill "
                  "-f lavfi -i aevalsrc='0.8*sin(2*PI*1000*t)*lt(mod(t,1),0.04)':s=48000:d={0} "
                  "-c:v libx264 -bf 2 -pix_fmt yuv420p -preset veryfast -c:a aac -ac {1} -b:a 96k",
                  seconds, channels)));
}

/// Times of the white frames.
std::vector<double> flashes(const Path& file) {
  auto frames = runProcess({"ffmpeg", "-v", "error", "-copyts", "-i", file, "-map", "0:v:0", "-vf",
                            "signalstats,metadata=print:key=lavfi.signalstats.YAVG:file=-", "-f", "null", "-"});
  std::istringstream lines(frames.output);
  double time = 0;
  std::vector<double> found;
  for (std::string line; std::getline(lines, line);) {
    auto value = [&](const char* key) { return std::stod(line.substr(line.find(key) + std::string(key).size())); };
    if (line.find("pts_time:") != std::string::npos) time = value("pts_time:");
    if (line.find("YAVG=") != std::string::npos && value("YAVG=") > 128) found.push_back(time);
  }
  return found;
}

/// Times of loud samples that come half a second or more behind the last one.
std::vector<double> beeps(const Path& file) {
  const std::vector<int16_t> samples = heardSamples(file);
  constexpr double rate = 48000;
  std::vector<double> found;
  double last = -1;
  for (size_t i = 0; i < samples.size(); ++i) {
    if (std::abs(int{samples[i]}) < 9728) continue;
    const double time = static_cast<double>(i) / rate;
    if (time > last + 0.5) found.push_back(time);
    last = time;
  }
  return found;
}

using ChildrenChange = std::function<void(std::vector<Bytes>& children)>;

std::string_view typeOf(const Bytes& box) {
  return textOf(ByteView(box).subspan(4, 4));
}

/// The box with changed children on each level from the `moov` to the tracks' headers and edit lists.
Bytes rebuilt(const Bytes& whole, const ChildrenChange& change) {
  auto type = typeOf(whole);
  if (type != "moov" && type != "trak" && type != "edts" && type != "mdia") return whole;
  std::vector<Bytes> children;
  for (size_t at = 8; at < whole.size(); at += readUInt32(whole, at).value()) {
    auto begin = whole.begin() + static_cast<ptrdiff_t>(at);
    children.push_back(rebuilt({begin, begin + readUInt32(whole, at).value()}, change));
  }
  change(children);
  Bytes contents;
  for (const Bytes& child : children) contents.insert(contents.end(), child.begin(), child.end());
  return box(type, {contents});
}

void rewriteMoov(const Path& file, const ChildrenChange& change) {
  PosixFileManager files(file.parent_path());
  BoxEditor editor(readFile(files, file));
  Bytes moov = rebuilt(editor.get("moov"), change);
  if (editor.at("moov").end() != editor.bytes.size()) throw std::runtime_error("the moov is not the last box");
  editor.bytes.resize(editor.at("moov").offset);
  writeFileAtomically(files, file, joined({editor.bytes, moov}));
}

/// The version-1 form of a version-0 box: these 32-bit fields (by index behind version and flags) grow to 64 bits.
Bytes widened(const Bytes& whole, const std::vector<size_t>& wideFields) {
  Bytes contents;
  ByteWriter writer(contents);
  writer.uint32(0x01000000);
  for (size_t i = 0, at = 12; at < whole.size(); ++i, at += 4) {
    uint32_t value = readUInt32(whole, at).value();
    bool isWide = std::ranges::find(wideFields, i) != wideFields.end();
    // Sign-extended, so that a media time of -1 stays one.
    if (isWide) writer.uint32(value == 0xFFFFFFFF ? value : 0);
    writer.uint32(value);
  }
  return box(typeOf(whole), {contents});
}

}  // namespace

Path flashBeepClip(double audioLate, const Arguments& muxerArguments, bool audioFirst, bool twoAudioTracks) {
  Path clip = tracksTogether(3, 1);
  auto input = [&](double late) { return Arguments{"-itsoffset", std::to_string(std::max(0.0, late)), "-i", clip}; };
  const Arguments video{"-map", "0:v"}, audio{"-map", "1:a"};
  return madeByFFmpeg(together({input(-audioLate),
                                input(audioLate),
                                audioFirst ? audio : video,
                                audioFirst ? video : audio,
                                twoAudioTracks ? audio : Arguments(),
                                {"-c", "copy"},
                                muxerArguments}));
}

Path damagedFlashBeepClip(int seconds, int channels, const Arguments& muxerArguments, double audioLate) {
  const std::string clip = tracksTogether(seconds, channels);
  return madeByFFmpeg(
      together({words(fmt::format("-i {0} -itsoffset {1:f} -i {0} -map 0:v -map 1:a -c copy", clip, audioLate)),
                muxerArguments}));
}

double beepAfterFlash(const Path& file) {
  return beeps(file).at(1) - flashes(file).at(1);
}

std::vector<Beat> beats(const Path& file) {
  const std::vector<double> heard = beeps(file);
  std::vector<Beat> result;
  for (double flash : flashes(file)) {
    const auto nearest = std::ranges::min_element(heard, {}, [&](double beep) { return std::abs(beep - flash); });
    if (nearest != heard.end() && std::abs(*nearest - flash) < 0.5) result.push_back({flash, *nearest - flash});
  }
  return result;
}

std::vector<int16_t> heardSamples(const Path& file) {
  // Time 0 of the presentation becomes the first sample: silence goes ahead of a late start.
  auto pcm = runProcess(words(fmt::format(
      "ffmpeg -v error -copyts -i {} -map 0:a:0 -af aresample=first_pts=0 -ac 1 -ar 48000 -f s16le -", file.string())));
  std::vector<int16_t> samples(pcm.output.size() / 2);
  std::memcpy(samples.data(), pcm.output.data(), samples.size() * 2);
  return samples;
}

std::string mediaHashes(const Path& file) {
  return runProcess({"ffmpeg", "-v", "error", "-ignore_editlist", "1", "-i", file, "-map", "0", "-c", "copy", "-f",
                     "streamhash", "-"})
      .output;
}

void widenTimingBoxes(const Path& file) {
  rewriteMoov(file, [](std::vector<Bytes>& children) {
    for (Bytes& child : children) {
      const std::string type(typeOf(child));  // the child changes
      if (type == "mvhd" || type == "mdhd") child = widened(child, {0, 1, 3});
      if (type == "tkhd") child = widened(child, {0, 1, 4});
      if (type == "elst") child = widened(child, {1, 2, 4, 5});  // field 0 is the count, then three for each row
    }
  });
}

void moveEditListsToTrackEnds(const Path& file) {
  rewriteMoov(file, [](std::vector<Bytes>& children) {
    std::ranges::stable_partition(children, [](const Bytes& child) { return typeOf(child) != "edts"; });
  });
}

}  // namespace tarn::test
