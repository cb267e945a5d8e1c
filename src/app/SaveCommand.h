#pragma once

#include <optional>
#include <string>

#include "app/Commands.h"

namespace tarn {

struct SaveOptions {
  std::string url;
  std::string album;
  std::optional<std::string> filename = {};
  bool skipVideoFix = false;
  bool skipAudioFix = false;
};

/// Saves one video and says how it went. Returns the exit code.
int saveCommand(const GlobalOptions& global, const SaveOptions& options);

}  // namespace tarn
