#pragma once

#include <string>

#include "platform/Clock.h"

namespace tarn {

/// ISO 8601 in UTC, in whole seconds: 2024-05-01T12:30:00Z.
std::string dateText(Date date);

/// The date of such a text; the start of 1970 for any other.
Date dateOfText(const std::string& text);

}  // namespace tarn
