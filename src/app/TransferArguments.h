#pragma once

#include <tarn/transfer.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace tarn {

/// The options that say how a video is asked for.
class TransferArguments {
 public:
  void addTo(CLI::App& command);

  /// What they say, with the contents of the files that they name. Throws UsageError.
  TransferOptions options() const;

 private:
  std::vector<std::string> headers_;
  std::optional<std::string> cookieFile_;
  std::optional<std::string> referer_;
  std::optional<std::string> userAgent_;
  std::optional<std::string> rate_;
  std::optional<int> retries_;
};

/// Bytes a second: "500K" and "1.5M" are 500,000 and 1,500,000. Throws UsageError.
uint64_t parseRate(std::string_view text);

/// The text of a file that the user has written, or of standard input for "-". Throws UsageError if it is too large for
/// that, or cannot be read. An interrupt meanwhile ends the process.
std::string readUserFile(const std::string& name, size_t mostBytes = 16 << 20);

/// The lines of a text, without their ends, of whichever system.
std::vector<std::string_view> linesOf(std::string_view text);

}  // namespace tarn
