#pragma once

#include "parameters/ParameterSets.h"
#include "parameters/detail/ParameterSetCollector.h"

namespace tarn {

/// Collect the sets that a sample entry can hold and a decoder can read, and leave out the others: values that the
/// standard rules out, and in HEVC sets of other layers than the base layer, whose identifiers are their own.
extern const ParameterSetRules hevcReadableSets;
extern const ParameterSetRules avcReadableSets;

/// The older sets with the newer ones in the places of those with the same identifier, and after them.
ParameterSets merged(const ParameterSets& older, const ParameterSets& newer, const ParameterSetRules& rules);

/// True if one sample entry can hold both: no identifier has two contents, and all pictures have one size.
bool areCompatible(const ParameterSets& older, const ParameterSets& newer, const ParameterSetRules& rules);

}  // namespace tarn
