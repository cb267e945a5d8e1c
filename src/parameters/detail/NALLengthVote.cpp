#include "parameters/detail/NALLengthVote.h"

#include <algorithm>
#include <cstdint>
#include <optional>

#include "mp4/DataExtensions.h"
#include "parameters/detail/ParameterSetWalk.h"
#include "platform/Log.h"

namespace tarn {
namespace {

/// The length size for which a sample votes. A length must leave room for a second NAL unit, so that a sample of a
/// single one, which any length could fit by chance, has no vote.
std::optional<int> vote(FileHandle& file, const SampleInfo& sample, const ScanRules& rules) {
  SampleFront front(file, sample);
  ByteView bytes = front.at(0, 4 + rules.codec.headerSize);
  if (bytes.size() < 4) return std::nullopt;
  auto isFirstOfSeveral = [&](int64_t length, size_t lengthSize) {
    auto room = int64_t{sample.size} - static_cast<int64_t>(lengthSize);
    if (length < rules.vote.smallestLength || length >= room) return false;
    if (bytes.size() < lengthSize + rules.codec.headerSize) return false;
    uint8_t type = rules.codec.type(bytes[lengthSize]);
    return !rules.vote.checksType || (type >= 1 && type <= 12);
  };
  uint32_t first4 = loadUInt32(bytes.first<4>());
  if (isFirstOfSeveral(first4, 4)) return 4;
  if (isFirstOfSeveral(first4 >> 16, 2)) return 2;
  return std::nullopt;
}

struct Votes {
  size_t for4 = 0;
  size_t for2 = 0;
};

Votes countVotes(FileHandle& file, std::span<const SampleInfo> samples, const ScanRules& rules) {
  uint64_t position = file.offset();
  Votes votes;
  for (const SampleInfo& sample : samples) {
    auto voted = vote(file, sample, rules);
    if (voted) ++(*voted == 4 ? votes.for4 : votes.for2);
  }
  file.seek(position);
  return votes;
}

}  // namespace

int detectLengthSize(FileHandle& file, std::span<const SampleInfo> samples, const ScanRules& rules) {
  if (samples.empty()) {
    log("{}No samples provided for NAL length detection, defaulting to 4 bytes", rules.prefix);
    return 4;
  }
  Votes votes = countVotes(file, samples, rules);
  if (votes.for4 + votes.for2 == 0) {
    log("{}Could not detect NAL length size, defaulting to 4 bytes", rules.prefix);
    return 4;
  }
  if (rules.reportsVotes && votes.for4 > 0 && votes.for2 > 0) {
    log("WARNING: Detected inconsistent NAL length sizes across samples: [4: {}, 2: {}]", votes.for4, votes.for2);
    log("Using most common size");
  }
  int size = votes.for4 >= votes.for2 ? 4 : 2;
  if (rules.reportsVotes) {
    log("Detected NAL length size: {} bytes (verified across {} sample(s))", size, std::max(votes.for4, votes.for2));
  } else {
    log("{}Detected NAL length size: {} bytes", rules.prefix, size);
  }
  return size;
}

}  // namespace tarn
