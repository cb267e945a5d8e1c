#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "corpus/Clips.h"
#include "corpus/Judge.h"

namespace tarn::test {

/// A kind of file, and what a repair must make of it.
struct Kind {
  std::string name = {};
  Maker make;
  Outcome outcome = Outcome::same;
  Allowed allowed = {};
  Maker reference = {};  ///< what the result must show, if that is not what the file shows
};

struct KindGroup {
  std::string name;
  std::vector<Kind> kinds;

  friend void PrintTo(const KindGroup& group, std::ostream* out) { *out << group.name; }
};

/// Files that are well. A few are changed for a reason: AC-3 and other audio becomes AAC, "hev1" becomes "hvc1", a
/// video that does not begin at 0 gets a list.
std::vector<KindGroup> healthyKinds();

/// Files with one damage each in files of many settings.
std::vector<KindGroup> damagedKinds();

}  // namespace tarn::test
