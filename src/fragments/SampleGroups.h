#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fragments/Runs.h"
#include "movie/MovieTree.h"
#include "platform/Bytes.h"

namespace tarn {

/// The groups of a track's samples (ISO/IEC 14496-12 8.9): which one each sample belongs to, of each kind of grouping,
/// and the descriptions that fragments bring. Serves one thread.
class SampleGroups {
 public:
  /// The groups among the children of an `stbl`, of so many samples. Throws MovieError: damaged.
  void read(const MovieBox& stbl, uint64_t sampleCount);

  /// Those of the samples from `firstSample` on, which nobody has named yet: an `sbgp`, and of the same kind of
  /// grouping the `sgpd` beside it, if there is one, in which indexes above 0x10000 count; both whole, with 8-byte
  /// headers. A description that the track has already is not taken twice. Samples that no `sbgp` names belong to no
  /// group. Throws MovieError: damaged, for an index without a description too.
  void append(uint64_t firstSample, ByteView sbgp, std::optional<ByteView> sgpd);

  void truncate(uint64_t samples);

  /// Puts the `sbgp` boxes into an `stbl`, in the place of those of the same kind; one that puts no sample into a group
  /// goes. An `sgpd` changes only if descriptions were added.
  void writeTo(MovieBox& stbl) const;

 private:
  struct Kind {
    uint32_t type;
    std::optional<uint32_t> parameter;  ///< only in version 1
    auto operator<=>(const Kind&) const = default;
  };
  struct Descriptions {
    uint8_t version = 1;
    uint32_t defaultIndex = 0;  ///< only in version 2
    std::vector<Bytes> entries = {};
    std::map<Bytes, uint32_t> indexes = {};  ///< 1-based, of each entry
    bool haveGrown = false;

    MovieBox box(uint32_t type) const;
  };

  static Kind kindOf(ByteView sbgp);
  static MovieBox assignmentBox(const Kind& kind, const Runs<uint32_t>& groups);
  static Descriptions readDescriptions(ByteView sgpd);
  uint32_t trackIndex(uint32_t type, const Bytes& entry);

  std::map<Kind, Runs<uint32_t>> groups_;
  std::map<uint32_t, Descriptions> descriptions_;
};

}  // namespace tarn
