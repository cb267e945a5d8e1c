#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "platform/UserDefaults.h"
#include "platform/host/PosixFileManager.h"
#include "platform/memory/InMemoryFileManager.h"
#include "support/TempDirectory.h"

namespace tarn::test {

/// A home of its own, for a fixture to derive from.
template <typename Directory, typename Files>
class HomeIn {
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

  Directory home_;
  Files files_{home_.path()};
  UserDefaults defaults_{files_, home_ / "Defaults"};
};

/// Where the files in memory have their home.
struct DirectoryInMemory {
  Path path() const { return "/home"; }
  Path operator/(const std::string& name) const { return path() / name; }
};

using TestHome = HomeIn<DirectoryInMemory, InMemoryFileManager>;
using HomeOnDisk = HomeIn<TempDirectory, PosixFileManager>;

}  // namespace tarn::test
