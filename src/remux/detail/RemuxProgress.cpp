#include "remux/detail/RemuxProgress.h"

#include <algorithm>

#include "platform/Log.h"

namespace tarn {
namespace {

constexpr uint64_t progressConstant = 0x138800000;

/// Between two lines, in percent.
uint64_t progressStep(uint64_t size) {
  return size > progressConstant ? 1 : std::min<uint64_t>(10, progressConstant / size);
}

}  // namespace

void RemuxProgress::begins(const BoxHeader& box) {
  timer_.start();
  lastPercent_ = 0;
  isLost_ = false;
  if (isStreamed(box)) log("Streaming large {} box ({} bytes) in chunks...", box.type, box.size);
}

void RemuxProgress::advances(const BoxHeader& box, uint64_t written) {
  if (box.type != "mdat") return;
  const auto percent = static_cast<uint64_t>(static_cast<double>(written) * 100 / static_cast<double>(box.size));
  if (percent < lastPercent_ + progressStep(box.size)) return;
  log("Remuxing progress: {}% ({}MB / {}MB)", percent, written >> 20, box.size >> 20);
  lastPercent_ = percent;
}

void RemuxProgress::ends(const BoxHeader& box) {
  timeOf(box) += timer_.stop();
  if (isLost_) return;
  if (isTail(box)) {
    log("Wrote {} bytes at {} that are no box", box.size, box.offset);
  } else if (isReplaced(box)) {
    log("Wrote adjusted moov box ({} bytes, original: {} bytes)", newMoovSize_, box.size);
  } else {
    log("Wrote {} box ({} bytes){}", box.type, box.size, isStreamed(box) ? " via streaming" : "");
  }
}

bool RemuxProgress::becomesFree(const BoxHeader& box) {
  log("WARNING: Failed to read {} box at offset {}", box.type, box.offset);
  isLost_ = true;
  return true;
}

bool RemuxProgress::isStreamed(const BoxHeader& box) const {
  return box.size > rewritePieceSize && box.type != "mdat" && !isTail(box) && !isReplaced(box);
}

double& RemuxProgress::timeOf(const BoxHeader& box) {
  if (isReplaced(box)) return timings_.writeMoov;
  return box.type == "mdat" ? timings_.writeMdat : timings_.writeOtherBoxes;
}

}  // namespace tarn
