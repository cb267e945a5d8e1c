#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C"
#endif
    /// Writes an edts with an empty edit and a media edit, reads it back, and returns the second entry's media time,
    /// all from C; -1 when anything on the way is wrong.
    int64_t
    roundTripFromC(int64_t emptyDuration, int64_t mediaTime);
