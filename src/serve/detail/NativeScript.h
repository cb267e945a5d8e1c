#pragma once

#include <string_view>

namespace tarn {

/// web/host/native.js, the native side of the bridge in a page, as it was when the program was built.
std::string_view nativeScript();

}  // namespace tarn
