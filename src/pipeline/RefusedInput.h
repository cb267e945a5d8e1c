#pragma once

#include "platform/Error.h"

namespace tarn {

/// A step cannot make a video of a file because of what the file is: trying again does not help. The words say what to
/// do instead.
class RefusedInput : public Error {
 public:
  using Error::Error;
};

}  // namespace tarn
