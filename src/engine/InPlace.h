#pragma once

#include <optional>
#include <string>

#include "platform/FileManager.h"

namespace tarn {

/// NAME.orig: the name under which a file that is repaired in place stays as it was.
Path originalOf(const Path& file);

/// Throws RepairRefusal if nothing may take the place of the file: it is a symbolic link, or has other names (hard
/// links), which would lead to the old file then. Its NAME.orig, left by a repair that was killed, does not count.
void requireReplaceable(const Path& file);

/// Links NAME.orig to the file, unless a repair that was killed has done so. Throws RepairRefusal if another file has
/// that name or no hard link can be made, PosixError.
void keepOriginal(const Path& file);

/// Why a file cannot be kept under the name NAME.orig: another file has it. Nothing if none has.
std::optional<std::string> whyNotKept(const Path& file);

/// NAME.orig leads to the file itself: it was linked, and nothing has taken the file's place yet.
bool isOriginalItself(const Path& file);

}  // namespace tarn
