#pragma once

#include <tarn/summary.h>

#include "platform/JSObject.h"

namespace tarn {

/// {wrong: [], done: [], before?: {video: [[start, end]...], audio: [[start, end]...], soundBehindAtStart?,
/// soundBehindAtEnd?}, after?: the same}; times are seconds, to the millisecond.
JSObject summaryJSON(const RepairSummary& summary);

}  // namespace tarn
