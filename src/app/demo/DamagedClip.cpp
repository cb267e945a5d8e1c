#include "app/demo/DamagedClip.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "app/demo/FFmpeg.h"
#include "platform/Bytes.h"
#include "platform/Error.h"
#include "platform/TempFile.h"

namespace tarn {
namespace {

constexpr double secondsPerPacket = 1024 / 48000.0;
constexpr int lostPackets = 18;

void makeClip(const Path& clip) {
  runFFmpeg(
      {"-f", "lavfi", "-i",
       fmt::format("testsrc2=size=640x360:rate=25:duration={},drawbox=enable='lt(mod(t,1),0.02)':color=white:t=fill",
                   clipSeconds),
       "-f", "lavfi", "-i", fmt::format("aevalsrc='0.8*sin(2*PI*1000*t)*lt(mod(t,1),0.04)':s=48000:d={}", clipSeconds),
       "-c:v", "libx264", "-x264-params", "repeat-headers=1", "-pix_fmt", "yuv420p", "-c:a", "aac", "-ac", "2",
       clip.string()});
}

/// The packets from half a second before the hole's second on are lost.
void damageSound(const Path& clip, const Path& damaged) {
  const int first = static_cast<int>((clipHoleSecond - 0.5) / secondsPerPacket);
  runFFmpeg({"-i", clip.string(), "-c", "copy", "-tag:v", "avc3", "-bsf:a",
             fmt::format("noise=drop='between(n,{},{})'", first, first + lostPackets - 1), damaged.string()});
}

/// As some encoders leave it: the configuration box is gone.
void hideParameterSets(FileManager& files, const Path& clip) {
  const ByteView type = bytesOf("avcC");
  Bytes bytes = readFile(files, clip);
  const auto found = std::search(bytes.begin(), bytes.end(), type.begin(), type.end());
  if (found == bytes.end()) throw Error("Demo", -1, "the recording has no avcC");
  std::ranges::copy(bytesOf("free"), found);
  writeFileAtomically(files, clip, bytes);
}

}  // namespace

void makeDamagedClip(FileManager& files, const Path& clip) {
  const TempFile whole(files, clip.parent_path() / "whole.mp4");
  makeClip(whole.path());
  damageSound(whole.path(), clip);
  hideParameterSets(files, clip);
}

}  // namespace tarn
