#pragma once

#include <functional>

#include "platform/FileManager.h"

namespace tarn {

/// Shows a file or a folder in the program that the desktop has for it, and waits until the desktop's opener
/// (`xdg-open`) has ended. Whoever interrupts this process interrupts that too. False without a desktop or an opener,
/// or when that could not show it.
bool showOnDesktop(const Path& path);

/// The same for a process that goes on: the opener outlives it, hears none of its signals, and holds up no thread of
/// its work. `done` is called once, on this thread or another, at the latest a few seconds later: an opener that is
/// still there then is taken as one that stays beside the window.
void showOnDesktop(const Path& path, std::function<void(bool isShown)> done);

}  // namespace tarn
