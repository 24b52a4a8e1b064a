// Vocabulary types shared by every part of the library.
#pragma once

#include "telvo/export.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace telvo {

// A byte buffer: request bodies, compressed data, decoded Base64.
using Bytes = std::vector<std::uint8_t>;

// Dictionaries, arrays, numbers, booleans and null. Written compactly.
using Json = nlohmann::json;

// A failure handed to a delegate (transfer errors, parse errors).
struct TELVO_API Error {
  std::string domain;  // "telvo.transport" for transfer failures, "telvo.json" for parse failures
  std::int64_t code = 0;
  std::string message;
};

// Thrown on the caller's thread for a usage error: a missing value where a
// record is built, an unknown key in an environment section, and the like.
// Never thrown on a library thread.
class TELVO_API UsageError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

}  // namespace telvo
