#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "media/CMSampleBuffer.h"

namespace tarn::test {

/// Compressed samples as a test has them.
class ScriptedSource : public CompressedSampleSource {
 public:
  ScriptedSource(std::function<std::optional<CMSampleBuffer>()> next, std::function<Bytes(int64_t)> data)
      : next_(std::move(next)), data_(std::move(data)) {}

  std::optional<CMSampleBuffer> next() override { return next_(); }
  Bytes data(int64_t sampleIndex) override { return data_(sampleIndex); }

 private:
  std::function<std::optional<CMSampleBuffer>()> next_;
  std::function<Bytes(int64_t)> data_;
};

}  // namespace tarn::test
