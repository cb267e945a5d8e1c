#pragma once

#include <cstdint>
#include <memory>

#include "media/detail/PCMOutput.h"

struct AVFrame;
struct SwrContext;

namespace tarn {

/// Turns decoded frames into 16-bit interleaved PCM at the output's rate and channel count with libswresample. It goes
/// by what each frame says of itself, which may change in mid-stream. The output must outlive it. Only the PCM decoding
/// sees this class.
class Resampler {
 public:
  explicit Resampler(PCMOutput& output);
  ~Resampler();
  Resampler(const Resampler&) = delete;
  Resampler& operator=(const Resampler&) = delete;

  /// False for a channel layout, sample format or rate that cannot be converted. Frames unlike those before end the
  /// stretch in work, as a flush does.
  bool takes(const AVFrame& frame);

  /// Puts samples of a frame that it takes, from the `first` on, after what the output has; some may stay inside for
  /// later. Throws an Error of the domain "PCMDecoding" when that fails.
  void convert(const AVFrame& frame, int first, int count);

  /// Puts out all that is inside. What comes next is not joined to it.
  void flush();

  /// How many output frames those inside will make.
  int64_t delay() const;

  /// From here on makes this many output frames more out of a second (fewer below 0), for a second or until told
  /// otherwise.
  void compensate(int frames);

 private:
  struct Input;
  struct Deleter {
    void operator()(SwrContext* context) const;
  };

  bool configure(const AVFrame& frame);
  void put(const uint8_t** data, int count);

  PCMOutput& output_;
  std::unique_ptr<SwrContext, Deleter> context_;  ///< none before the first frame and after a flush
  std::unique_ptr<Input> input_;                  ///< what `context_` takes
  bool isCompensating_ = false;
};

}  // namespace tarn
