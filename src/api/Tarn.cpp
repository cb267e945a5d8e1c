#include <tarn/tarn.h>
#include <tarn/version.h>

#include "platform/Log.h"

namespace tarn {

const char* version() noexcept {
  return TARN_VERSION_STRING;
}

void setLog(LogSink sink) {
  setLogSink(sink ? std::move(sink) : [](std::string_view) {});
}

}  // namespace tarn
