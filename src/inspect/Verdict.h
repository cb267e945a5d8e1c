#pragma once

#include <tarn/inspect.h>

#include <cstdint>
#include <string>

namespace tarn {

struct Inspection;

/// Something that is wrong with the file.
struct Problem {
  /// What of the file it is about, and so which step mends it; none mends the file as a whole.
  enum class Of {
    file,
    samples,  ///< where the samples are: in fragments, or past the end of the file
    video,
    sound,
    editLists,
  };

  Of of = Of::file;
  std::string words;
};

/// What to make of the file, at a glance.
struct Verdict {
  using Kind = FileInspection::Verdict;

  Kind kind = Kind::nothingToRepair;
  std::string text;  ///< a line without its stop, which begins with what the kind says
};

/// Derives it from all that the inspection has found out; the forecasts must be there.
Verdict verdictOn(const Inspection& inspection);

/// Whether a step of the repair mends it.
bool isMended(const Problem& problem, const Inspection& inspection);

}  // namespace tarn
