#include "app/demo/BeatMeter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>
#include <string>

#include "app/demo/FFmpeg.h"
#include "platform/TempFile.h"

namespace tarn {
namespace {

constexpr double rate = 48000;
constexpr int loud = 9000;               // of 32767
constexpr int white = 200;               // of 255: what the darkest spot of a flash is above
constexpr double longestDistance = 0.5;  // seconds, between a flash and its beep

std::vector<double> beeps(FileManager& files, const Path& clip, const Path& scratch) {
  const TempFile pcm(files, scratch / "sound.pcm");
  runFFmpeg({"-i", clip.string(), "-map", "0:a:0", "-af", "asetpts=N/SR/TB", "-ac", "1", "-ar", "48000", "-f", "s16le",
             pcm.path().string()});
  const Bytes bytes = readFile(files, pcm.path());
  std::vector<int16_t> samples(bytes.size() / sizeof(int16_t));
  if (!samples.empty()) std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(int16_t));
  std::vector<double> found;
  double last = -1;
  for (size_t i = 0; i < samples.size(); ++i) {
    if (std::abs(int{samples[i]}) < loud) continue;
    const double time = static_cast<double>(i) / rate;
    if (time > last + longestDistance / 2) found.push_back(time);
    last = time;
  }
  return found;
}

}  // namespace

std::optional<DecodedPictures> decodePictures(FileManager& files, const Path& clip, const Path& scratch) {
  const TempFile levels(files, scratch / "levels.txt");
  try {
    runFFmpeg({"-xerror", "-err_detect", "explode", "-copyts", "-i", clip.string(), "-map", "0:v:0", "-vf",
               "signalstats,metadata=print:key=lavfi.signalstats.YMIN:file=" + levels.path().string(), "-f", "null",
               "-"});
  } catch (const FFmpegFailed&) {
    return std::nullopt;
  }
  const Bytes text = readFile(files, levels.path());
  std::istringstream lines{std::string(textOf(text))};
  DecodedPictures pictures;
  double time = 0;
  for (std::string line; std::getline(lines, line);) {
    if (const size_t at = line.find("pts_time:"); at != std::string::npos) {
      time = std::stod(line.substr(at + 9));
      ++pictures.count;
    }
    if (const size_t at = line.find("YMIN="); at != std::string::npos && std::stod(line.substr(at + 5)) > white) {
      pictures.flashes.push_back(time);
    }
  }
  return pictures;
}

std::optional<double> beepBehind(FileManager& files, const Path& clip, double flash, const Path& scratch) {
  const std::vector<double> heard = beeps(files, clip, scratch);
  const auto nearest = std::ranges::min_element(heard, {}, [&](double beep) { return std::abs(beep - flash); });
  if (nearest == heard.end() || std::abs(*nearest - flash) > longestDistance) return std::nullopt;
  return *nearest - flash;
}

}  // namespace tarn
