/* The parser is part of a C interface: this file holds it to that. */
#include <tarn/hevc.h>

int32_t parseFromC(const uint8_t* data, size_t size, struct HEVCSPSInfo* info);

int32_t parseFromC(const uint8_t* data, size_t size, struct HEVCSPSInfo* info) {
  return hevc_parse_sps(data, size, info);
}
