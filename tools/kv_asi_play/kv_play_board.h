#pragma once

// Where the player finds the element's module and the virtual ASI board, and how it runs
// itself on the board.

#include <string>

#include "kv_play_options.h"

namespace kv_asi_play {

// Set for the player re-executed on the virtual board: the node, and the library that
// was preloaded (to be taken out of LD_PRELOAD again).
constexpr const char* kBoardNodeVar = "KV_ASI_PLAY_BOARD_NODE";
constexpr const char* kBoardLibVar = "KV_ASI_PLAY_BOARD_LIB";

// The element's module: --plugin, next to this program in the build tree, or where the
// build put it.
std::string find_plugin(const options& o);

// Runs the player again with the board configured for a node of its own (and preloaded,
// unless this build carries the board inside). Returns only on failure, with 1.
int run_on_virtual_board(const options& o, char** argv);

// In the re-executed player: checks that the board answers and keeps it out of the
// processes GStreamer starts (its plugin scanner). `node` becomes the board's node.
bool enter_virtual_board(std::string& node);

}  // namespace kv_asi_play
