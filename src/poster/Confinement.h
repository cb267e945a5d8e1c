#pragma once

namespace tarn {

/// Bounds this process: 256 MiB of address space, 10 seconds of processor time, no files of any size, no core. It ends
/// with the process that started it. Throws PosixError.
void limitProcess();

/// From now on this process can read and write what is open, take and give back memory, and end. It can open nothing,
/// reach no network, and start no program and no thread: the kernel refuses all other calls. Throws PosixError where
/// the kernel or the machine has no such filter.
void confineProcess();

}  // namespace tarn
