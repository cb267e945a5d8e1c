#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

namespace tarn::test {

/// The environment may ask for another number than the usual one: a seed, a count, a stride.
inline uint32_t numberFrom(const char* name, uint32_t usual) {
  const char* const given = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return given ? static_cast<uint32_t>(std::stoul(given)) : usual;
}

}  // namespace tarn::test
