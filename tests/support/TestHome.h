#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "platform/UserDefaults.h"
#include "platform/host/PosixFileManager.h"
#include "support/TempDirectory.h"

namespace tarn::test {

/// A home of its own on the real file system, for a fixture to derive from.
class TestHome {
 protected:
  /// A file in Documents with this text.
  Path put(const std::string& name, std::string_view text) {
    Path path = files_.documentsDirectory(true) / name;
    writeFileAtomically(files_, path, bytesOf(text));
    return path;
  }

  /// The stored value of a key, "none" when there is none.
  std::string stored(const std::string& key) {
    const auto data = defaults_.data(key);
    return data ? std::string(textOf(*data)) : "none";
  }

  TempDirectory home_;
  PosixFileManager files_{home_.path()};
  UserDefaults defaults_{files_, home_ / "Defaults"};
};

}  // namespace tarn::test
