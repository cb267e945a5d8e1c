#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <thread>
#include <vector>

#include "media/AVAssetWriter.h"
#include "platform/Bytes.h"
#include "platform/Error.h"

namespace tarn {

/// Encodes a stream of PCM on several threads: in segments of about 45 s, each by an encoder of its own that has heard
/// the packets before it and some after it. The packets are those of the stream without priming: packet n holds
/// the frames from n * 1024 on. They do not depend on the number of workers. Calls come from one thread; `failure`,
/// `hasRoom` and `cancel` from any.
class SegmentedAACEncoder {
 public:
  static constexpr size_t packetsPerSegment = 2100;
  /// So many packets its rate control may need to come to rest: with fewer, a segment of steady tones begins 14 dB
  /// worse than the one before it ends.
  static constexpr size_t warmUpPackets = 256;
  /// The encoder looks ahead: a packet comes out when this many more have gone in.
  static constexpr size_t lookAheadPackets = 4;
  static constexpr size_t mostWaitingSegments = 1;

  /// Takes the packets of one segment, in the order of the segments, on some worker's thread. What it throws is the
  /// encoder's failure.
  using Sink = std::function<void(const std::vector<Bytes>& packets)>;

  /// Throws std::system_error when the system has not one thread to give.
  SegmentedAACEncoder(const AACOutputSettings& settings, unsigned workers, Sink sink);
  /// Cancels.
  ~SegmentedAACEncoder();
  SegmentedAACEncoder(const SegmentedAACEncoder&) = delete;
  SegmentedAACEncoder& operator=(const SegmentedAACEncoder&) = delete;

  /// False while the workers are behind; true after a failure.
  bool hasRoom() const;

  /// Interleaved PCM. Waits for room if there is none; does nothing after a failure.
  void append(std::span<const int16_t> samples);

  /// Waits until the sink has everything, or something has failed.
  void finish();

  /// Ends the work within the time of a packet.
  void cancel();

  std::optional<Error> failure() const;

 private:
  /// PCM of one segment, with what its encoder hears before and after.
  struct Segment {
    size_t index = 0;
    std::vector<int16_t> samples;
    size_t warmUp = 0;   ///< packets
    size_t packets = 0;  ///< after the warm-up
    bool isLast = false;
  };

  size_t samplesPerPacket() const;
  void submit(Segment segment);
  void submitFullSegments();
  void work();
  std::optional<std::vector<Bytes>> encode(const Segment& segment) const;
  void deliver(size_t index, std::vector<Bytes> packets);
  void fail(const Error& failure);
  bool isStopped() const;

  const AACOutputSettings settings_;
  const Sink sink_;

  std::vector<int16_t> window_;  // the caller's: from the warm-up of the next segment on
  size_t windowWarmUp_ = 0;      // packets at its front that belong to the last segment
  size_t nextSegment_ = 0;

  mutable std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  std::deque<Segment> waiting_;
  bool isComplete_ = false;  // no segment comes any more
  bool isCancelled_ = false;
  std::optional<Error> failure_;

  std::mutex delivery_;  // guards these two, and the sink
  std::map<size_t, std::vector<Bytes>> encoded_;
  size_t delivered_ = 0;

  std::vector<std::thread> workers_;
};

}  // namespace tarn
