#pragma once

#include "app/Commands.h"
#include "app/SaveList.h"

namespace tarn {

/// Saves one video and says how it went. Returns the exit code.
int saveCommand(const GlobalOptions& global, const SaveItem& item);

}  // namespace tarn
