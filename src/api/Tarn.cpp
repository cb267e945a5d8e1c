#include <tarn/tarn.h>
#include <tarn/version.h>

#include "api/detail/DefaultLog.h"
#include "platform/Log.h"

namespace tarn {

const char* version() noexcept {
  return TARN_VERSION_STRING;
}

void setLog(LogSink sink) {
  dropLogByDefault();  // before it, so that it cannot come between on another thread
  setLogSink(sink ? std::move(sink) : [](std::string_view) {});
}

}  // namespace tarn
