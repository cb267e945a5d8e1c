#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarn {

/// The shortest ending of an id, of four digits or more, that no other of these ids has: people name a download by it.
std::string shortId(int64_t id, const std::vector<int64_t>& ids);

/// The download that people mean by its id, or by an ending that no other has. Throws Error.
int64_t idNamed(const std::string& text, const std::vector<int64_t>& ids);

}  // namespace tarn
