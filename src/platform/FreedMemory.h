#pragma once

namespace tarn {

/// Lets the allocator give back to the system what it holds of freed memory. Worth it behind work that took tens of MiB
/// in millions of pieces: it would keep them, and large blocks are not made of them.
void giveBackFreedMemory();

}  // namespace tarn
