#pragma once

#include <string>

#include "inspect/Inspection.h"

namespace tarn {

/// An inspection as a drawing, an SVG document: picture and sound on one timeline, before a repair and after it, with
/// holes, overlaps, the ends of the edits, and drift. Texts out of the file are escaped.
std::string inspectionPlot(const Inspection& inspection);

}  // namespace tarn
