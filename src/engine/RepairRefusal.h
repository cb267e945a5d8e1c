#pragma once

#include <string>

#include "platform/Error.h"

namespace tarn {

/// A repair that is not done, because of what the file is or where it stands: trying again does not help.
class RepairRefusal : public Error {
 public:
  explicit RepairRefusal(const std::string& words) : Error("Repair", -1, words) {}
};

}  // namespace tarn
