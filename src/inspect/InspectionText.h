#pragma once

#include <string>

#include "inspect/Inspection.h"

namespace tarn {

/// An inspection for people: the verdict first, then the facts, several lines.
std::string inspectionText(const Inspection& inspection);

}  // namespace tarn
