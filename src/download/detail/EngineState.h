#pragma once

#include "download/DocumentsSweep.h"
#include "download/detail/DownloadNews.h"
#include "download/detail/DownloadQueue.h"
#include "download/detail/DownloadRegistry.h"
#include "download/detail/EnginePosts.h"
#include "download/detail/TaskStore.h"
#include "pipeline/NamesInTheMaking.h"
#include "pipeline/ProcessingGate.h"
#include "pipeline/ProcessingStateManager.h"
#include "platform/Platform.h"

namespace tarn {

/// What the parts of the engine share: the services it stands on, the tasks, the line and the slots, the stores, the
/// gate. Each of them guards itself.
///
/// Order of locks: the queue's and the gate's are never held together. Under the queue's, the limit is read. Under the
/// gate's, the store's, the registry's and a task's may be taken. These call nobody but the stored values, and the
/// registry takes a task's.
struct EngineState {
  EngineState(const Platform& services, DownloadListener* listener)
      : platform(services), posts(services.dispatch), news(registry, posts, listener) {}

  const Platform platform;
  EnginePosts posts;
  DownloadRegistry registry;
  DownloadNews news;
  TaskStore taskStore{platform.defaults, registry};
  DownloadQueue queue{platform.defaults};
  ProcessingStateManager store{platform.defaults, platform.files, platform.clock};
  ProcessingGate gate{store};
  NamesInTheMaking names;
  DocumentsSweep sweep{platform.files, registry, store, gate, names};
};

}  // namespace tarn
