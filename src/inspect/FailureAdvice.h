#pragma once

#include <string>

#include "pipeline/RunOutcome.h"

namespace tarn {

/// What somebody can do about a download or a repair that failed.
struct FailureAdvice {
  std::string words = {};        ///< a whole sentence, or nothing: "Check the address: the server has no such file."
  bool mayTryAgain = false;      ///< the same again may work: the network, a full disk, a server that is busy
  bool maySaveAsItCame = false;  ///< a repair failed that the file can do without
};

/// Works by the kind of the failure, never by its words.
FailureAdvice adviceFor(const RunOutcome& outcome);

}  // namespace tarn
