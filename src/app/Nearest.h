#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn {

/// The known word that somebody meant: the one that this begins, or the one with the fewest letters added, left out,
/// changed or swapped. Nothing if none is near.
std::optional<std::string> nearest(std::string_view word, const std::vector<std::string>& known);

}  // namespace tarn
