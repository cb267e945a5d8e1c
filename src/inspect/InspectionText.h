#pragma once

#include <string>

#include "inspect/Inspection.h"

namespace tarn {

/// An inspection for people, several lines: the verdict, what is wrong and what a repair does.
std::string inspectionBrief(const Inspection& inspection);

/// The same, and all other facts after it.
std::string inspectionText(const Inspection& inspection);

}  // namespace tarn
