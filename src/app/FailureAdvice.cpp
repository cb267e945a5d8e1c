#include "app/FailureAdvice.h"

#include "parameters/ParameterSetCollector.h"

namespace tarn {

std::string adviceOn(std::string_view failure, std::string_view otherwise) {
  if (failure == NALUnitParserError::noParameterSetsFound().description()) {
    return "Without them its sample entry cannot be rebuilt; --skip-video-fix saves the file as it came.";
  }
  return std::string(otherwise);
}

}  // namespace tarn
