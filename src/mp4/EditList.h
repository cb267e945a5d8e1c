#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "mp4/BoxLayout.h"
#include "mp4/MP4BoxUtils.h"
#include "mp4/TableEntries.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// An entry of an `elst` (ISO/IEC 14496-12 8.6.6).
struct EditListEntry {
  int64_t duration = 0;   ///< movie timescale; 0: to the end of the media; a file's 64 bits as they are
  int64_t mediaTime = 0;  ///< track timescale, or layout::emptyEdit
  int32_t mediaRate = layout::normalRate;  ///< 16.16; 0 holds what is shown at `mediaTime`

  bool isEmpty() const { return mediaTime == layout::emptyEdit; }
  bool operator==(const EditListEntry&) const = default;
};

/// How a reader takes a list from a damaged file. Workers differ in this and in nothing else.
struct EditListRules {
  bool hasSignedDurations = false;  ///< of 32 bits; those of 64 have a sign anyway
  TableEntries::HugeCount hugeCount = TableEntries::HugeCount::isCut;
  size_t mostEntries = std::numeric_limits<size_t>::max();  ///< the others are left out
};

namespace editlist {

inline constexpr EditListRules synced{.hugeCount = TableEntries::HugeCount::isNone, .mostEntries = 16};
inline constexpr EditListRules stripped{.hasSignedDurations = true};
inline constexpr EditListRules replaced{};

}  // namespace editlist

/// The entries of an `elst` with an 8-byte header, in a buffer that must outlive it. Those that the box cuts off are
/// left out.
class EditListEntries {
 public:
  EditListEntries(ByteView elst, const EditListRules& rules);

  size_t size() const;
  EditListEntry entry(size_t index) const;

 private:
  bool is64Bit_;
  EditListRules rules_;
  TableEntries entries_;
};

/// The same as a list.
std::vector<EditListEntry> readEditList(ByteView elst, const EditListRules& rules);

/// The entries of a track's edit list; none if it has no list. Moves the file's position. Throws an
/// Error of the domain "SampleTable" or a ByteArrayError where the box ends before its count does.
std::vector<EditListEntry> readEditList(FileHandle& file, const MP4BoxInfo& trak);

}  // namespace tarn
