// Writes to standard output so that a signal still ends the program while nobody reads.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "peer/stop_signals.h"

namespace zumod::peer {

// Throw OutputClosed when the reader is gone, PeerError for another failure, Interrupted.
void WriteOut(std::span<const uint8_t> bytes, const StopSignals& signals);
void WriteOut(const std::string& text, const StopSignals& signals);

}  // namespace zumod::peer
