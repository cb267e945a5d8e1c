#include "engine/HistoryActions.h"

#include "engine/Host.h"

namespace tarn {

void HistoryActions::cancel(int64_t id, const CAPPluginCallPointer& call) {
  host_.plugin().downloadManager().cancelDownloadFileBy(id);
  // The engine tells of those that it knows; this one may be known to the history alone.
  host_.history().ended({.id = id, .kind = RunOutcome::Kind::cancelled});
  call->resolve({{"id", id}});
}

void HistoryActions::retry(int64_t id, bool asItCame, const CAPPluginCallPointer& call) {
  std::lock_guard guard(mutex_);
  const auto entry = host_.history().entry(id);
  if (!entry) return call->reject("No such download");
  if (entry->state == HistoryEntry::State::pending) return call->reject("The download has not ended");
  if (entry->state == HistoryEntry::State::saved) return call->reject("The video was saved");
  auto request = host_.history().request(id);
  if (!request) return call->reject("What was asked for is not kept any more; ask for the video anew");
  if (asItCame) request->skipVideoFix = request->skipAudioFix = true;
  const auto answer = [this, id, call](const CAPPluginCall::Answer& started) {
    if (!started.resolved) return call->reject(started.message);
    host_.history().clear(id);
    call->resolve({{"id", valueAt<int64_t>(started.data, "id", 0)}});
  };
  // What the failed one has left in the engine goes.
  host_.plugin().downloadManager().cancelDownloadFileBy(id);
  host_.plugin().save(*request, std::nullopt, std::make_shared<CAPPluginCall>("saveVideo", JSObject(), answer));
}

}  // namespace tarn
