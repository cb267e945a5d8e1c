#pragma once

#include <cstdint>

#include "movie/MovieRewrite.h"
#include "pipeline/RemuxTimingHelper.h"

namespace tarn {

/// Logs each box that a rewrite writes, and adds up the time that its kind takes. A small box that cannot be read
/// becomes free space.
class RemuxProgress : public RewriteListener {
 public:
  /// `moov` is the one that is replaced; `timings` must outlive it.
  RemuxProgress(const BoxHeader& moov, size_t newMoovSize, RemuxTimings& timings)
      : moovOffset_(moov.offset), newMoovSize_(newMoovSize), timings_(timings) {}

  void begins(const BoxHeader& box) override;
  void advances(const BoxHeader& box, uint64_t written) override;
  void ends(const BoxHeader& box) override;
  bool becomesFree(const BoxHeader& box) override;

 private:
  bool isReplaced(const BoxHeader& box) const { return box.offset == moovOffset_; }
  bool isStreamed(const BoxHeader& box) const;
  double& timeOf(const BoxHeader& box);

  uint64_t moovOffset_;
  size_t newMoovSize_;
  RemuxTimings& timings_;
  TimingHelper timer_;
  uint64_t lastPercent_ = 0;
  bool isLost_ = false;
};

}  // namespace tarn
