#pragma once

#include <string>
#include <vector>

#include "platform/Bytes.h"

namespace tarn::test {

struct DamagedMovie {
  const char* name;
  Bytes bytes;
};

/// What a repair has to do with: real movies, damaged in a known way, and some that need nothing.
const std::vector<DamagedMovie>& damagedMovies();

const Bytes& damagedMovie(const std::string& name);

}  // namespace tarn::test
