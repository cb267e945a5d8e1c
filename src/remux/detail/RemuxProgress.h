#pragma once

#include <cstdint>
#include <optional>

#include "movie/MovieRewrite.h"
#include "pipeline/RemuxTimingHelper.h"

namespace tarn {

/// Logs each box that a rewrite writes, and adds up the time that its kind takes. A small box that cannot be read
/// becomes free space.
class RemuxProgress : public RewriteListener {
 public:
  /// `timings` must outlive it.
  RemuxProgress(size_t newMoovSize, RemuxTimings& timings) : newMoovSize_(newMoovSize), timings_(timings) {}

  void begins(const BoxHeader& box) override;
  void advances(const BoxHeader& box, uint64_t written) override;
  void ends(const BoxHeader& box) override;
  bool becomesFree(const BoxHeader& box) override;

 private:
  double& timeOf(const BoxHeader& box);

  size_t newMoovSize_;
  RemuxTimings& timings_;
  TimingHelper timer_;
  uint64_t lastPercent_ = 0;
  bool isLost_ = false;
};

}  // namespace tarn
