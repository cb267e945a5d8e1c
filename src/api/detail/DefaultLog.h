#pragma once

namespace tarn {

/// Drops the log from now on, unless somebody has said where it goes. Each public function that works calls it first.
void dropLogByDefault();

}  // namespace tarn
