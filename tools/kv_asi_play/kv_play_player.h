#pragma once

// The player: the pipeline from the source to the element, file pacing, the bus, the
// statistics line once a second and the summary at the end.

#include <string>

#include "kv_play_options.h"

namespace kv_asi_play {

// Plays as the options say to `device` (the virtual board's node when `bVirtual`) until
// the end, Ctrl-C or --duration. Returns the exit status. GStreamer must be initialised.
int play(const options& o, const std::string& device, bool bVirtual);

}  // namespace kv_asi_play
