#pragma once

#include <string>

namespace tarn {

/// The version of `tarn`, the commit that it was built from, if that is known, and a line for each library that it runs
/// with.
std::string versionText();

}  // namespace tarn
