#pragma once

#include "platform/Error.h"

namespace tarn {

/// The input of a repair is no longer what it was when the repair began. Trying again may help.
class SourceChanged : public Error {
 public:
  SourceChanged() : Error("Repair", -1, "the file was changed while it was read") {}
};

}  // namespace tarn
