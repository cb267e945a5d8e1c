#pragma once

#include <tarn/summary.h>

#include <optional>

#include "presentation/Presentation.h"

namespace tarn {

/// How the sound of a timeline is looked at.
enum class SoundHoles {
  shown,   ///< where a packet lasts much longer than most of its track there is no sound after it
  filled,  ///< as it is when the holes are filled with silence
};

/// Where the first video track shows pictures and the first sound track plays, by tables and edit lists alone. Of more
/// than 500 spans those that are closest together are taken as one.
RepairSummary::Timeline timelineOf(const Presentation& movie, SoundHoles holes = SoundHoles::shown);

/// The same of a file; nothing if that cannot be told, or the file cannot be read.
std::optional<RepairSummary::Timeline> readTimeline(FileManager& files, const Path& path,
                                                    SoundHoles holes = SoundHoles::shown);

}  // namespace tarn
