#include "app/RepairArguments.h"

#include <filesystem>

namespace tarn {

bool RepairArguments::isSingle() const {
  std::error_code ignored;
  return inputs.size() == 1 && !filesFrom && !std::filesystem::is_directory(inputs.front(), ignored);
}

}  // namespace tarn
