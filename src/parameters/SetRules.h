#pragma once

#include <cstddef>
#include <string_view>

#include "parameters/ParameterSetCollector.h"
#include "platform/Bytes.h"

namespace tarn {

/// A decoder configuration record holds no longer parameter set (ISO/IEC 14496-15 5.3.3.1.2, 8.3.3.1.2), in bytes.
inline constexpr size_t longestStoredSet = 65535;

/// Collect the sets that a sample entry can hold and a decoder can read, and log the others: values that the standard
/// rules out, and in HEVC sets of other layers than the base layer, whose identifiers are their own.
extern const ParameterSetRules hevcReadableSets;
extern const ParameterSetRules avcReadableSets;

std::string_view nameOf(ParameterSetKind kind);

/// The identifier of an AVC parameter set (ITU-T H.264 7.3.2.1.1, 7.3.2.2), from its bytes behind the NAL header and
/// without emulation prevention. Bits that are missing count as 0.
uint32_t parseAVCParameterSetID(ParameterSetKind kind, ByteView payload);

/// True where there is at least one set of each kind that the codec has.
bool isComplete(const ParameterSets& sets, const NALCodec& codec);

/// "no VPS, no PPS"; empty for complete sets.
std::string missingKinds(const ParameterSets& sets, const NALCodec& codec);

/// True where all `sets` are among `others`, byte for byte.
bool areAmong(const ParameterSets& sets, const ParameterSets& others);

/// The older sets with the newer ones in the places of those with the same identifier, and behind them.
ParameterSets merged(const ParameterSets& older, const ParameterSets& newer, const ParameterSetRules& rules);

/// True where one sample entry can hold both: no identifier has two contents, and all pictures have one size.
bool areCompatible(const ParameterSets& older, const ParameterSets& newer, const ParameterSetRules& rules);

/// Takes out the sets that a record cannot hold, which the log tells of.
void dropTooLongSets(ParameterSets& sets);

}  // namespace tarn
