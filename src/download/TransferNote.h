#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tarn {

/// What a transfer's own record keeps of its task over a restart: the stored task list has no place for the flags.
struct TransferNote {
  int64_t id = 0;
  bool skipVideoFix = false;
  bool skipAudioFix = false;

  std::string text() const;
  /// Nothing for a text that is no such note.
  static std::optional<TransferNote> parse(const std::string& text);
};

}  // namespace tarn
