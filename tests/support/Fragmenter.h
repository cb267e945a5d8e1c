#pragma once

#include <cstdint>

#include "platform/FileManager.h"

namespace tarn::test {

/// A plain movie with its samples in fragments of up to `mostSamples` of each track, by the rules of the streams: each
/// fragment tells its time, its place and all fields of its samples, and a `traf` is about one sample entry. The lists
/// and every other box stay.
Bytes inFragments(FileManager& files, const Path& plain, uint32_t mostSamples);

}  // namespace tarn::test
