#include "engine/AlbumsLink.h"

#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

namespace tarn {
namespace {

constexpr std::string_view key = "XDG_VIDEOS_DIR=\"";
constexpr std::string_view homeVariable = "$HOME";

std::optional<Path> absoluteFromEnvironment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets the environment
  if (!value || *value != '/') return std::nullopt;
  return value;
}

/// What stands between quotation marks, without the backslashes that quote characters there.
std::string unquoted(std::string_view text) {
  std::string value;
  for (size_t i = 0; i < text.size() && text[i] != '"'; ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) ++i;
    value += text[i];
  }
  return value;
}

/// The last line that names it counts.
std::string namedIn(const Path& settings) {
  std::ifstream lines(settings);
  std::string value;
  for (std::string line; std::getline(lines, line);) {
    const size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || !std::string_view(line).substr(start).starts_with(key)) continue;
    value = unquoted(std::string_view(line).substr(start + key.size()));
  }
  return value;
}

}  // namespace

std::optional<Path> videosDirectory() {
  const auto home = absoluteFromEnvironment("HOME");
  if (!home) return std::nullopt;
  std::string named =
      namedIn(absoluteFromEnvironment("XDG_CONFIG_HOME").value_or(*home / ".config") / "user-dirs.dirs");
  if (named.starts_with(homeVariable)) named = home->string() + named.substr(homeVariable.size());
  const Path folder = (Path(named) / "").lexically_normal();
  std::error_code failure;
  if (!folder.is_absolute() || folder == (*home / "").lexically_normal()) return std::nullopt;
  if (!std::filesystem::is_directory(folder, failure)) return std::nullopt;
  return folder;
}

bool linkAlbums(const Path& albums) {
  const auto folder = videosDirectory();
  if (!folder) return false;
  std::error_code failure;
  std::filesystem::create_directory_symlink(albums, *folder / "Tarn", failure);
  return !failure;
}

}  // namespace tarn
