#pragma once

#include <string>
#include <vector>

#include "audio/AudioRepairDecision.h"

namespace tarn {

// What people are told of the sound: sentences without their stops.

/// What people call its codec: "AC-3".
std::string codecName(const AudioFindings& findings);

/// What is wrong with it, one sentence for each fault; empty for sound that needs nothing.
std::vector<std::string> wrongWithSound(const AudioFindings& findings);

/// What a repair does about that: with silent packets, or by encoding it anew.
std::string doneByPackets(const AudioFindings& findings);
std::string doneByEncoding(const AudioFindings& findings);

/// Why it is encoded anew, and not repaired by silent packets.
std::string whyEncoded(const AudioFindings& findings);

/// Says that drift like this one is left alone.
std::string extremeDriftWords(const AudioFindings& findings);

/// "45 ms", "1.0 s".
std::string lengthText(double milliseconds);

/// "0:01", "1:02:03".
std::string clockText(double seconds);

}  // namespace tarn
