#pragma once

#include <tarn/engine.h>

#include <cstdint>
#include <string>

#include "app/Commands.h"
#include "app/Interrupt.h"
#include "platform/JSObject.h"

namespace tarn {

/// How a download has ended, in the process of this engine or of an earlier one.
Engine::Outcome outcomeOf(Engine& engine, int64_t id);

/// What has ended a command, or a part of it.
Engine::Outcome failureOf(const std::exception_ptr& reason);

/// The exit code of a download or a command that failed.
int exitCodeOf(const Engine::Outcome& failure);

/// "words. Advice." of a download that failed.
std::string sentencesOf(const Engine::Outcome& failure);

/// Adds to the object of a download what became of it: `result`, and of a failure `error`, `advice`, `mayTryAgain` and
/// `maySaveAsItCame`, of a saved video what was left as it was or is lost (`warnings`).
void addTo(JSObject& object, const Engine::Outcome& outcome);

/// Says what has ended a command, or its work on what `about` names: as an object too, with --json. Returns the exit
/// code.
int reportFailure(const GlobalOptions& global, const std::exception_ptr& reason, const JSObject& about = {});

/// Says that an interrupt has ended the command, and what becomes of its work. Returns the exit code.
int reportInterrupt(const GlobalOptions& global,
                    const std::string& words = "what has been done is kept. `tarn resume` goes on with it.");

/// For a command that only reads: an interrupt ends the process at once.
InterruptWatcher endAtInterrupt(const GlobalOptions& global);

/// Says what of a saved video was left as it was; and if a part of it is missing, that, also when quiet.
void printWarnings(const Engine::Outcome& saved, const std::string& name);

}  // namespace tarn
