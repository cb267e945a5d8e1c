#include "api/detail/DefaultLog.h"

#include <mutex>
#include <utility>

#include "platform/Log.h"

namespace tarn {

void dropLogByDefault() {
  static std::once_flag once;
  std::call_once(once, [] {
    LogSink present = setLogSink([](std::string_view) {});
    if (present) setLogSink(std::move(present));
  });
}

}  // namespace tarn
