#pragma once

#include <concepts>
#include <memory>

#include "platform/Error.h"
#include "platform/FileManager.h"

namespace tarn {

/// Opens a file as FileManager::open does. Throws `failure` instead of the system's refusal.
template <std::derived_from<Error> Failure>
std::unique_ptr<FileHandle> openFile(FileManager& files, const Path& path, OpenMode mode, const Failure& failure) {
  try {
    return files.open(path, mode);
  } catch (const PosixError&) {
    throw failure;
  }
}

}  // namespace tarn
