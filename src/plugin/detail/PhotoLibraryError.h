#pragma once

#include <string>

#include "platform/Error.h"

namespace tarn {

/// A failure to put a video into the photo library for which the library itself has no words.
class PhotoLibraryError : public Error {
 public:
  explicit PhotoLibraryError(std::string reason) : Error("PhotoLibraryError", -1, std::move(reason)) {}

  const std::string& reason() const { return description(); }
};

}  // namespace tarn
