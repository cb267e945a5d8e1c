#include "media/detail/SegmentedAACEncoder.h"

#include <algorithm>
#include <system_error>

#include "media/detail/AACEncoder.h"

namespace tarn {

SegmentedAACEncoder::SegmentedAACEncoder(const AACOutputSettings& settings, unsigned workers, Sink sink)
    : settings_(settings), sink_(std::move(sink)) {
  for (unsigned i = 0; i < workers; ++i) {
    try {
      workers_.emplace_back([this] { work(); });
    } catch (const std::system_error&) {
      if (workers_.empty()) throw;
      break;  // fewer threads do the same work
    }
  }
}

SegmentedAACEncoder::~SegmentedAACEncoder() {
  cancel();
  for (std::thread& worker : workers_) {
    if (worker.joinable()) worker.join();
  }
}

bool SegmentedAACEncoder::hasRoom() const {
  std::lock_guard guard(mutex_);
  return waiting_.size() < mostWaitingSegments || failure_ || isCancelled_;
}

std::optional<Error> SegmentedAACEncoder::failure() const {
  std::lock_guard guard(mutex_);
  return failure_;
}

bool SegmentedAACEncoder::isStopped() const {
  std::lock_guard guard(mutex_);
  return isCancelled_ || failure_;
}

void SegmentedAACEncoder::cancel() {
  std::lock_guard guard(mutex_);
  isCancelled_ = true;
  waiting_.clear();
  changed_.notify_all();
}

void SegmentedAACEncoder::fail(const Error& failure) {
  std::lock_guard guard(mutex_);
  if (!failure_) failure_ = failure;
  waiting_.clear();
  changed_.notify_all();
}

size_t SegmentedAACEncoder::samplesPerPacket() const {
  return size_t{framesPerAACPacket} * static_cast<size_t>(settings_.channels);
}

void SegmentedAACEncoder::append(std::span<const int16_t> samples) {
  window_.insert(window_.end(), samples.begin(), samples.end());
  submitFullSegments();
}

void SegmentedAACEncoder::submitFullSegments() {
  const size_t perPacket = samplesPerPacket();
  while (window_.size() >= (windowWarmUp_ + packetsPerSegment + lookAheadPackets) * perPacket) {
    const size_t end = windowWarmUp_ + packetsPerSegment;
    const auto heard = window_.begin() + static_cast<ptrdiff_t>((end + lookAheadPackets) * perPacket);
    submit({nextSegment_++, {window_.begin(), heard}, windowWarmUp_, packetsPerSegment, false});
    window_.erase(window_.begin(), window_.begin() + static_cast<ptrdiff_t>((end - warmUpPackets) * perPacket));
    windowWarmUp_ = warmUpPackets;
  }
}

void SegmentedAACEncoder::submit(Segment segment) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return waiting_.size() < mostWaitingSegments || failure_ || isCancelled_; });
  if (failure_ || isCancelled_) return;
  waiting_.push_back(std::move(segment));
  changed_.notify_all();
}

void SegmentedAACEncoder::finish() {
  const size_t perPacket = samplesPerPacket();
  const size_t packets = (window_.size() + perPacket - 1) / perPacket;
  if (packets > windowWarmUp_) {
    submit({nextSegment_++, std::move(window_), windowWarmUp_, packets - windowWarmUp_, true});
  }
  window_.clear();
  {
    std::lock_guard guard(mutex_);
    isComplete_ = true;
    changed_.notify_all();
  }
  for (std::thread& worker : workers_) worker.join();
}

void SegmentedAACEncoder::work() {
  while (true) {
    Segment segment;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] { return !waiting_.empty() || isComplete_ || isCancelled_ || failure_; });
      if (waiting_.empty()) return;
      segment = std::move(waiting_.front());
      waiting_.pop_front();
      changed_.notify_all();
    }
    try {
      auto packets = encode(segment);
      if (!packets) return;
      deliver(segment.index, std::move(*packets));
    } catch (const Error& failure) {
      return fail(failure);
    } catch (const std::exception& failure) {
      return fail(Error("AACEncoder", -1, failure.what()));
    }
  }
}

/// Nothing if the work was stopped.
std::optional<std::vector<Bytes>> SegmentedAACEncoder::encode(const Segment& segment) const {
  AACEncoder encoder(settings_);
  const size_t first = segment.warmUp + 1;  // packet 0 is priming
  const size_t end = first + segment.packets;
  std::vector<Bytes> packets;
  packets.reserve(segment.packets);
  size_t index = 0;
  const auto collect = [&] {
    for (auto packet = encoder.receive(); packet; packet = encoder.receive(), ++index) {
      if (index >= first && index < end) packets.push_back(std::move(*packet));
    }
  };
  const std::span<const int16_t> samples = segment.samples;
  for (size_t at = 0; at < samples.size(); at += samplesPerPacket()) {
    if (isStopped()) return std::nullopt;
    encoder.send(samples.subspan(at, std::min(samplesPerPacket(), samples.size() - at)));
    collect();
  }
  if (segment.isLast) {
    encoder.finish();
    collect();
  }
  if (packets.size() != segment.packets) throw Error("AACEncoder", -1, "the AAC encoder left packets out");
  return packets;
}

void SegmentedAACEncoder::deliver(size_t index, std::vector<Bytes> packets) {
  std::lock_guard guard(delivery_);
  encoded_.emplace(index, std::move(packets));
  for (auto next = encoded_.find(delivered_); next != encoded_.end(); next = encoded_.find(++delivered_)) {
    if (isStopped()) return;
    sink_(next->second);
    encoded_.erase(next);
  }
}

}  // namespace tarn
