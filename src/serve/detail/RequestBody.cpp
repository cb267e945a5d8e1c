#include "serve/detail/RequestBody.h"

#include <algorithm>

#include "platform/UTF8.h"

namespace tarn {
namespace {

bool isJSON(const RequestHead& head) {
  std::string type = lowered(head.field("content-type").value_or(""));
  type.resize(std::min(type.find_first_of("; "), type.size()));
  return type == "application/json";
}

}  // namespace

std::optional<Refusal> RequestBody::refuse(const RequestHead& head) const {
  if (head.method != "POST" && head.method != "PUT") {
    if (!isChunked && length.value_or(0) == 0 && arrived == 0) return std::nullopt;
    return Refusal{413, "A request has no body here, and nothing may follow it."};
  }
  if (!length || isChunked) return Refusal{411, "The request must say how long its body is."};
  if (arrived > *length) return Refusal{413, "There is more than the request's body."};
  if (head.method == "PUT") return std::nullopt;
  if (*length > largest) return Refusal{413, "The body is too large."};
  if (!isJSON(head)) return Refusal{415, "The body must be application/json."};
  return std::nullopt;
}

}  // namespace tarn
