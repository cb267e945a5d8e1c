#pragma once

#include <string>
#include <string_view>

namespace tarn {

/// What to try after a failure of the repair, from the words of the failure; `otherwise` where nothing special is known
/// of it.
std::string adviceOn(std::string_view failure, std::string_view otherwise);

}  // namespace tarn
