#pragma once

#include <string>
#include <vector>

#include "support/MediaMaker.h"

namespace tarn::test {

inline const std::string sampleTable = "moov/trak/mdia/minf/stbl";

/// A recipe for 2 s that have their parameter sets in the samples.
VideoRecipe inBand(bool isHEVC, const std::string& size = "192x144");

/// The movie without the configuration box of its sample entry and with the tag that says so; no offset changes.
Bytes withoutParameterSets(const Bytes& movie, bool isHEVC);

struct DamagedMovie {
  const char* name;
  Bytes bytes;
};

/// What a repair has to do with: real movies, damaged in a known way, and some that need nothing.
const std::vector<DamagedMovie>& damagedMovies();

const Bytes& damagedMovie(const std::string& name);

}  // namespace tarn::test
