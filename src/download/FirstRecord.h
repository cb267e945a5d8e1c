#pragma once

#include <cstdint>

#include "download/DownloadRequest.h"
#include "pipeline/ProcessingState.h"
#include "platform/Clock.h"
#include "platform/FileManager.h"

namespace tarn {

/// Looks at the codec and the audio of the file at `path` and makes the record with which the run of download `id`
/// begins: its flags steer the whole run. The record has the name that was requested, else that of the file. A codec
/// that cannot be detected is no failure. The record of a movie in fragments, or of one that broke off, asks for all
/// that the request lets it: what the movie needs shows when it is a whole plain one.
ProcessingState makeFirstRecord(FileManager& files, const Clock& clock, int64_t id, const Path& path,
                                const DownloadRequest& request);

/// Looks at the file of a record and turns off the flags that it has no need of. A movie in fragments is left alone:
/// all of them go off. Never turns one on.
void deriveFlags(FileManager& files, ProcessingState& record);

}  // namespace tarn
