#pragma once

#include <optional>
#include <string_view>

#include "kind/Kind.h"

namespace tarn {

/// The kind of a file that begins with this text: a web page, a playlist, an SVG picture, JSON; nothing for another.
std::optional<Kind> textKind(std::string_view head);

}  // namespace tarn
