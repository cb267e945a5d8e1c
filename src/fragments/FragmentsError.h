#pragma once

#include <string>

#include "platform/Error.h"

namespace tarn {

/// A movie in fragments that cannot become a plain one, because of what it is: trying again does not help, and nothing
/// was written.
class FragmentsError : public Error {
 public:
  explicit FragmentsError(const std::string& words) : Error("Fragments", -1, words) {}
};

}  // namespace tarn
