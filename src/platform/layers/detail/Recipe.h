#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "platform/FileManager.h"

namespace tarn {

/// What layered files are made of, as it is stored: a JSON document.
struct Recipe {
  struct Part {
    enum class Source { base, side, zeros };
    Source source = Source::zeros;
    uint64_t offset = 0;  ///< in the source; 0 for zeros
    uint64_t size = 0;    ///< bytes, never 0
  };

  uint64_t inode = 0;     ///< of the base file
  uint64_t baseSize = 0;  ///< bytes
  std::map<Path, std::vector<Part>> files;

  /// Bytes that the side file must have.
  uint64_t sideSize() const;
};

Bytes encodeRecipe(const Recipe& recipe);

/// Returns nothing if the document is damaged, a part reaches over the base, or a file would be larger than 2^63 bytes.
std::optional<Recipe> decodeRecipe(ByteView document);

}  // namespace tarn
