// The collector's reading of a request body's envelope (Base64, zlib stream,
// UTF-8, "telvoJson=" prefix, JSON), with bounded memory: the stream is
// inflated once only to measure it, so a body that inflates beyond the limit
// costs no memory at all, then once into a buffer of exactly its size; the
// JSON is checked in one pass (json_scan.h) and never made into a tree. What
// a post holds stays a text, and the rows taken from it point into it.
//
// The layers and their messages are those of decodeTelvoJsonParameter
// (telvo/envelope.h), which builds the whole document instead.
//
// Pure function; any thread.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "collector/json_scan.h"
#include "telvo/envelope.h"

namespace telvo::tool {

// The collector's default for the largest text a body may inflate to: four
// times the largest batch the library posts (4 MiB of JSON).
inline constexpr std::size_t kCollectorMaxInflatedBytes = std::size_t{16} << 20;

struct EnvelopeLimits {
  std::size_t maxInflatedBytes = kCollectorMaxInflatedBytes;
  JsonLimits json;
};

struct ReadEnvelope {
  DecodedEnvelope::Failure failure = DecodedEnvelope::Failure::kNone;
  std::string message;  // one line saying what failed, empty on success
  // The inflated text, prefix and all (set once inflated). Shared so that
  // rows pointing into it can keep it alive.
  std::shared_ptr<const std::string> text;
  // The JSON text after the prefix (when the prefix was found) and, when
  // failure is kNone, where its one value lies in it.
  std::string_view json;
  JsonSpan document;
  bool ok() const { return failure == DecodedEnvelope::Failure::kNone; }
};

// Reads `body`. Never throws: running out of memory is reported as a
// failure of the layer it happened in.
ReadEnvelope readEnvelope(std::string_view body, const EnvelopeLimits& limits);

}  // namespace telvo::tool
