/* The primitives are a C interface: this file holds them to that. */
#include <tarn/avsync.h>

int64_t rescaledFromC(int64_t value, int64_t to, int64_t from);

int64_t rescaledFromC(int64_t value, int64_t to, int64_t from) {
  return avsync_rescale(value, to, from);
}
