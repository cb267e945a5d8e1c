#ifndef TARN_EXPORT_H
#define TARN_EXPORT_H

/**
 * @file
 * TARN_API.
 */

/** Marks what the shared library shows; all else in it is hidden. */
#define TARN_API __attribute__((visibility("default")))

#endif
