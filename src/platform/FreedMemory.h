#pragma once

namespace tarn {

/// Lets the allocator give back to the system what it holds of freed memory. Worth it between two pieces of work that
/// take tens of MiB each: what the first one has freed is of no use to the second one if it lies in small pieces.
void giveBackFreedMemory();

}  // namespace tarn
