// Base64 (RFC 4648 standard alphabet, "=" padding), tolerant when decoding.
//
// Encoding can wrap lines with CR LF; decoding skips every character outside
// the alphabet (padding, white space, "-" and "_" included) and never fails on
// them. Empty results are reported as nothing. Pure functions; any thread.
#pragma once

#include "telvo/export.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "telvo/types.h"

namespace telvo {

// Encodes `bytes`. `wrapWidth` is rounded down to a multiple of 4; below 4 the
// output is one line, otherwise lines of exactly that many characters joined by
// CR LF (a separator is only ever written after a complete 3-byte group).
// Nothing for an empty input.
TELVO_API std::optional<std::string> base64EncodedStringWithWrapWidth(const Bytes& bytes,
                                                            std::size_t wrapWidth);
TELVO_API std::optional<std::string> base64EncodedStringWithWrapWidth(const std::uint8_t* bytes,
                                                            std::size_t length,
                                                            std::size_t wrapWidth);
// Same, unwrapped.
TELVO_API std::optional<std::string> base64EncodedString(const Bytes& bytes);

// Decodes `text` read as ASCII: every byte of a non-ASCII character counts as a
// character outside the alphabet, and an ASCII byte is looked up by its low
// seven bits. Characters outside the alphabet (padding, white space, "-", "_")
// are skipped wherever they stand; decoding never stops at "=". A lone
// trailing character is dropped. Nothing when no byte results.
TELVO_API std::optional<Bytes> dataWithBase64EncodedString(std::string_view text);

// Text forms: the text's UTF-8 bytes are encoded (invalid UTF-8 sequences are
// replaced by U+FFFD first); decoding yields nothing where the decoded bytes
// are not valid UTF-8.
TELVO_API std::optional<std::string> stringWithBase64EncodedString(std::string_view text);
TELVO_API std::optional<std::string> base64EncodedStringWithWrapWidth(std::string_view text,
                                                            std::size_t wrapWidth);
TELVO_API std::optional<std::string> base64EncodedString(std::string_view text);
TELVO_API std::optional<std::string> base64DecodedString(std::string_view text);
TELVO_API std::optional<Bytes> base64DecodedData(std::string_view text);

}  // namespace telvo
