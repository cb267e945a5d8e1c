#include "app/VanishedWork.h"

#include <algorithm>

namespace tarn {
namespace {

constexpr int enoughLooks = 5;

bool contains(const std::vector<int64_t>& ids, int64_t id) {
  return std::ranges::find(ids, id) != ids.end();
}

}  // namespace

VanishedWork::State VanishedWork::look(int64_t id, const std::string& status, const Engine::StoredWork& stored) {
  if (status == "STATUS_PENDING" || contains(stored.transfers, id) || contains(stored.records, id)) {
    looks_[id] = 0;
    return State::underWay;
  }
  if (status != "STATUS_RUNNING" && status != "STATUS_PROCESSING") return State::resting;
  return ++looks_[id] < enoughLooks ? State::underWay : State::vanished;
}

const char* VanishedWork::words(const std::string& status) {
  return status == "STATUS_RUNNING" ? "its transfer is gone" : "its file is gone";
}

}  // namespace tarn
