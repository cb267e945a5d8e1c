#pragma once

#include <optional>
#include <stop_token>

#include "engine/PrivateHome.h"

namespace tarn {

/// Standard input and output as files of a repair, which needs to move about in the one and whose result appears whole
/// in the other. They are in a private directory and go with it.
class RepairStreams {
 public:
  /// The directory in which the private one is made.
  explicit RepairStreams(const Path& place) : home_(place) {}

  /// Standard input up to its end. Throws CancellationError once `cancel` is told to stop, PosixError.
  Path readInput(const std::stop_token& cancel);

  /// Where the result is to be written before it goes to standard output.
  Path output();

  /// Copies the result to standard output. Throws PosixError.
  void writeOutput();

 private:
  PrivateHome home_;
};

}  // namespace tarn
