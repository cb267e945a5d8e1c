#include "engine/PosterMaker.h"

#include <utility>

#include "engine/PosterProgram.h"
#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr std::chrono::seconds timeLimit{10};

}  // namespace

PosterMaker::PosterMaker(FileManager& files, Path directory, std::optional<Path> program)
    : files_(files), directory_(std::move(directory)), program_(std::move(program)) {
  removeAbandonedSiblings(files_, directory_);
}

PosterMaker::~PosterMaker() {
  worker_ = {};
  for (const Request& request : requests_) request.handler(std::nullopt);
}

void PosterMaker::tell(const std::string& assetId, const Path& video, Handler handler) {
  if (files_.fileExists(place(assetId))) return handler(place(assetId));
  {
    std::lock_guard guard(mutex_);
    if (program_ && !hasNone_.contains(assetId)) {
      requests_.push_back({assetId, video, std::move(handler)});
      if (!worker_.joinable()) worker_ = std::jthread([this](const std::stop_token& stop) { work(stop); });
      changed_.notify_all();
      return;
    }
  }
  handler(std::nullopt);
}

void PosterMaker::work(const std::stop_token& stop) {
  std::unique_lock guard(mutex_);
  while (changed_.wait(guard, stop, [this] { return !requests_.empty(); }) && !stop.stop_requested()) {
    const Request request = std::move(requests_.front());
    requests_.pop_front();
    const bool hasNone = hasNone_.contains(request.assetId);
    guard.unlock();
    const auto poster = hasNone ? std::nullopt : make(request, stop);
    guard.lock();
    if (!poster && !stop.stop_requested()) hasNone_.insert(request.assetId);
    guard.unlock();
    request.handler(poster);
    guard.lock();
  }
}

std::optional<Path> PosterMaker::make(const Request& request, const std::stop_token& stop) {
  const Path poster = place(request.assetId);
  if (files_.fileExists(poster)) return poster;  // an earlier request has made it
  try {
    const auto bytes = runPosterProgram(*program_, request.video, timeLimit, [&stop] { return stop.stop_requested(); });
    if (!bytes) return std::nullopt;
    files_.createDirectory(directory_);
    writeFileAtomically(files_, poster, *bytes);
    return poster;
  } catch (const Error& error) {
    log("No poster of {}: {}", request.assetId, error.description());
    return std::nullopt;
  }
}

void PosterMaker::keepOnly(const std::set<std::string>& assetIds) {
  if (!files_.fileExists(directory_)) return;
  for (const std::string& name : files_.contentsOfDirectory(directory_)) {
    const Path file = name;
    if (file.extension() == ".jpg" && !assetIds.contains(file.stem())) removeIfExists(files_, directory_ / file);
  }
}

}  // namespace tarn
