#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "mp4/EditList.h"
#include "mp4/MP4BoxUtils.h"
#include "pipeline/OriginalSyncInfo.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"
#include "sync/detail/TrackTimingInfo.h"

namespace tarn {

// The timing facts of a file; see MP4AVSyncFixer.

OriginalSyncInfo readOriginalSyncInfo(FileManager& files, const Path& path);

uint32_t parseMovieTimescale(FileHandle& file, const MP4BoxInfo& moov);
TrackTimingInfo parseVideoTrackInfo(FileHandle& file, const MP4BoxInfo& moov);
std::optional<AudioTrackTimingInfo> parseAudioTrackInfo(FileHandle& file, const MP4BoxInfo& moov,
                                                        bool audioWasTranscoded);
std::vector<EditListEntry> parseTrackEditList(FileHandle& file, const MP4BoxInfo& moov, MP4TrackType type);
std::string parseAudioCodec(FileHandle& file, const MP4BoxInfo& mdia);
int64_t parseMdhdDuration(ByteView mdhd);

}  // namespace tarn
