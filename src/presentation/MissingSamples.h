#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/FileManager.h"
#include "presentation/Presentation.h"

namespace tarn {

/// A track that lists samples which the file does not hold.
struct IncompleteTrack {
  std::string name;      ///< what people call it, to come after "the"
  std::string handler;   ///< "vide" or "soun", say
  uint32_t missing = 0;  ///< of its samples
  uint32_t samples = 0;  ///< that its tables promise

  /// A sentence for people, without its stop.
  std::string words() const;
};

std::vector<IncompleteTrack> incompleteTracks(const Presentation& movie);

/// The same of a movie of which some tracks cannot be read; of these nothing is told, and tracks of one handler have
/// one name. Nothing of a movie in fragments. Throws PosixError if the file cannot be read.
std::vector<IncompleteTrack> incompleteTracks(FileManager& files, const Path& path);

}  // namespace tarn
