#pragma once

#include <string>

#include "inspect/Inspection.h"

namespace tarn {

/// An inspection as one JSON object, in one line.
std::string inspectionJSON(const Inspection& inspection);

}  // namespace tarn
