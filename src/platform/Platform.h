#pragma once

#include "platform/Clock.h"
#include "platform/Dispatch.h"
#include "platform/FileManager.h"
#include "platform/NSURLSession.h"
#include "platform/PHPhotoLibrary.h"
#include "platform/UIApplication.h"
#include "platform/UserDefaults.h"

namespace tarn {

/// The services that the engine stands on. The composition root owns them and keeps them alive longer than the engine.
struct Platform {
  FileManager& files;
  UserDefaults& defaults;
  const Clock& clock;
  Dispatch& dispatch;
  UIApplication& application;
  PHPhotoLibrary& photos;
  NSURLSessionService& transfers;
};

}  // namespace tarn
