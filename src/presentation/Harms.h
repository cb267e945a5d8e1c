#pragma once

#include <string>
#include <vector>

#include "presentation/PresentationChange.h"

namespace tarn {

/// The parts of a change that go beyond the announced one, one phrase each, in words for people ("3 pictures are
/// hidden", "the sound comes 45 ms too late against the pictures"); empty for a change that harms nothing. Allowed are
/// 1 ms for kept samples and 2 ms for a remade track (and for that its `packetLength`), or one tick of the coarser
/// movie timescale if that is more.
std::vector<std::string> harmsOf(const PresentationChange& change, const Presentation& before,
                                 const Presentation& after, const AnnouncedChange& announced = {});

/// The same of the change from `before` to a result, which is read. That it cannot be read as a movie is a harm too;
/// throws PosixError if the file itself cannot be read.
std::vector<std::string> harmsOfResult(FileManager& files, const Path& result, const Presentation& before,
                                       SharedBytes shared, const AnnouncedChange& announced);

}  // namespace tarn
