#include "support/FlashBeep.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <sstream>

#include "support/MediaMaker.h"
#include "support/PCM.h"

namespace tarn::test {
namespace {

/// Times of the white frames.
std::vector<double> flashes(const Path& file) {
  constexpr auto white = "signalstats,metadata=select:key=lavfi.signalstats.YAVG:value=128:function=greater";
  const auto frames = runProcess({"ffmpeg", "-v", "error", "-copyts", "-i", file, "-map", "0:v:0", "-vf",
                                  fmt::format("{},metadata=print:file=-", white), "-f", "null", "-"});
  std::istringstream lines(frames.output);
  std::vector<double> found;
  for (std::string line; std::getline(lines, line);) {
    const std::string key = "pts_time:";
    if (size_t at = line.find(key); at != std::string::npos) found.push_back(std::stod(line.substr(at + key.size())));
  }
  return found;
}

}  // namespace

Path damagedFlashBeepClip(int seconds, int channels, const std::vector<std::string>& muxerArguments, double audioLate,
                          const std::string& tracks) {
  const std::string clip = madeByFFmpeg(words(
      fmt::format("-f lavfi -i color=black:s=192x144:r=25:d={0},drawbox=enable='lt(mod(t,1),0.02)':color=white:t=fill "
                  "-f lavfi -i aevalsrc='0.8*sin(2*PI*1000*t)*lt(mod(t,1),0.04)':s=48000:d={0} "
                  "-c:v libx264 -bf 2 -pix_fmt yuv420p -preset veryfast -c:a aac -ac {1} -b:a 96k",
                  seconds, channels)));
  auto arguments = words(fmt::format("-itsoffset {1:f} -i {0} -itsoffset {2:f} -i {0} {3} -c copy", clip,
                                     std::max(0.0, -audioLate), std::max(0.0, audioLate), tracks));
  arguments.insert(arguments.end(), muxerArguments.begin(), muxerArguments.end());
  return madeByFFmpeg(arguments);
}

Path flashBeepClip(double audioLate, const std::vector<std::string>& muxerArguments, const std::string& tracks) {
  return damagedFlashBeepClip(3, 1, muxerArguments, audioLate, tracks);
}

std::vector<Beat> beats(const Path& file) {
  const std::vector<double> heard = onsets(heardSamples(file), 1, 9728, 0.5, -1);
  std::vector<Beat> result;
  for (double flash : flashes(file)) {
    const auto nearest = std::ranges::min_element(heard, {}, [&](double beep) { return std::abs(beep - flash); });
    if (nearest != heard.end() && std::abs(*nearest - flash) < 0.5) result.push_back({flash, *nearest - flash});
  }
  return result;
}

std::vector<int16_t> heardSamples(const Path& file) {
  // Time 0 of the presentation becomes the first sample: silence goes ahead of a late start.
  return decodedByFFmpeg(file, "-af aresample=first_pts=0 -ac 1 -ar 48000", "-copyts");
}

std::string mediaHashes(const Path& file) {
  return runProcess({"ffmpeg", "-v", "error", "-ignore_editlist", "1", "-i", file, "-map", "0", "-c", "copy", "-f",
                     "streamhash", "-"})
      .output;
}

}  // namespace tarn::test
