// Whole-buffer compression with zlib.
//
// Despite the historical name of this family, the compressed form is a zlib
// stream (RFC 1950) at the default level, never a gzip file, and the inflater
// accepts only that form. Failures give nothing. Pure functions; any thread.
#pragma once

#include "telvo/export.h"

#include <cstddef>
#include <cstdint>
#include <optional>

#include "telvo/types.h"

namespace telvo {

TELVO_API std::optional<Bytes> compressedDataWithBytes(const void* bytes, std::uint32_t length);
TELVO_API std::optional<Bytes> compressedDataWithData(const Bytes& data);

// Inflates through one 128 KiB chunk and stops on the first pass that does not
// fill it: a truncated stream gives the prefix decoded so far (nothing if that
// prefix is an exact multiple of 128 KiB); bytes after the end of the stream
// are ignored; empty input, gzip files and raw deflate data give nothing.
// With `maxLength`, output that would grow beyond it gives nothing as soon as
// it does (a small stream that inflates to gigabytes costs nothing more).
TELVO_API std::optional<Bytes> dataWithCompressedBytes(const void* bytes, std::uint32_t length,
                                             std::optional<std::size_t> maxLength = std::nullopt);
TELVO_API std::optional<Bytes> dataWithCompressedData(const Bytes& data,
                                            std::optional<std::size_t> maxLength = std::nullopt);

}  // namespace telvo
