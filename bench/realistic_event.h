// The event the benchmarks send: a player's progress with eight members, as
// a host sends it in the flat form, without a Json tree.
#pragma once

#include "telvo/telvo.h"

namespace telvo {

inline void sendRealisticFields(Telvo& client, long i) {
  client.sendEvent("video_progress", {{"title", "Big Buck Bunny"},
                                      {"position", i},
                                      {"duration", 5960.5},
                                      {"bitrate", 4500000},
                                      {"cdn", "edge-03.example.net"},
                                      {"muted", false},
                                      {"language", "en-GB"},
                                      {"profile", "main-1080p"}});
}

}  // namespace telvo
