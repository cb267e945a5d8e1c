#pragma once

#include "inspect/Inspection.h"

namespace tarn {

/// Lets the steps of the repair work on the file without a change to any disk, and tells in the inspection what they
/// do: its sync facts and both forecasts. The video as it is must have been read.
void forecastRepair(FileManager& files, Inspection& inspection);

}  // namespace tarn
