#pragma once

namespace tarn {

/// Lets the allocator give back to the system what it holds of freed memory. Worth it between two pieces of work that
/// take tens of MiB each: what the first one has freed is of no use to the second one if it is in small pieces.
void giveBackFreedMemory();

/// From now on a block of a MiB or more goes back to the system when it is freed, as long as the process lives: a table
/// of a large movie leaves no gap that the next one does not fit. For the start of a program.
void giveBackLargeBlocks();

}  // namespace tarn
