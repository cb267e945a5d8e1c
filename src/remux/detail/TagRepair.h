#pragma once

#include <optional>
#include <string>

#include "mp4/MP4BoxUtils.h"
#include "platform/FileManager.h"

namespace tarn {

// The tag of a video track's first sample entry; see MP4Remuxer.

std::optional<std::string> detectHEVCTag(FileManager& files, const Path& path);
std::optional<std::string> readVideoCodecFromStsd(FileHandle& file, const MP4BoxInfo& stsd);
bool remuxAVCTag(FileManager& files, const Path& path);

}  // namespace tarn
