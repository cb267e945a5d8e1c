#pragma once

#include <optional>
#include <string>

#include "platform/FileManager.h"

namespace tarn {

/// The address of the page that another process of this user serves in a home: the home's socket tells it, as does no
/// other way. Nothing if nobody listens there, or serves no page. Throws Error where another user or another version
/// listens.
std::optional<std::string> servedPage(const Path& home);

}  // namespace tarn
