#include "telvo/gzip.h"

#include <zlib.h>

#include <limits>
#include <memory>
#include <new>

namespace telvo {
namespace {

constexpr std::size_t kChunkSize = 128 * 1024;

// The inflate chunk is per thread and made on first use: a 128 KiB stack
// array could overflow the small stacks of host threads, and a static
// thread_local array would cost every thread of the process 128 KiB.
std::uint8_t* inflateChunk() {
  thread_local std::unique_ptr<std::uint8_t[]> chunk;
  if (!chunk) chunk.reset(new (std::nothrow) std::uint8_t[kChunkSize]);
  return chunk.get();
}

// Ends the inflate stream on every way out of the loop.
class InflateStream {
 public:
  InflateStream() = default;
  InflateStream(const InflateStream&) = delete;
  InflateStream& operator=(const InflateStream&) = delete;
  ~InflateStream() {
    if (initialised_) inflateEnd(&stream_);
  }
  // zlib format only (no gzip header detection, no raw deflate).
  bool init() {
    initialised_ = inflateInit(&stream_) == Z_OK;
    return initialised_;
  }
  z_stream* get() { return &stream_; }

 private:
  z_stream stream_{};
  bool initialised_ = false;
};

}  // namespace

std::optional<Bytes> compressedDataWithBytes(const void* bytes, std::uint32_t length) {
  if (bytes == nullptr && length != 0) return std::nullopt;
  try {
    uLongf packedLength = compressBound(length);
    Bytes packed(packedLength);
    if (compress(packed.data(), &packedLength, static_cast<const Bytef*>(bytes), length) != Z_OK) {
      return std::nullopt;
    }
    packed.resize(packedLength);
    // The bound is well above typical results; hand back only what is used.
    packed.shrink_to_fit();
    return packed;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

std::optional<Bytes> compressedDataWithData(const Bytes& data) {
  if (data.size() > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  return compressedDataWithBytes(data.data(), static_cast<std::uint32_t>(data.size()));
}

std::optional<Bytes> dataWithCompressedBytes(const void* bytes, std::uint32_t length,
                                             std::optional<std::size_t> maxLength) {
  if (bytes == nullptr && length != 0) return std::nullopt;
  std::uint8_t* const chunk = inflateChunk();
  if (chunk == nullptr) return std::nullopt;
  InflateStream stream;
  if (!stream.init()) return std::nullopt;
  z_stream* zs = stream.get();
  zs->next_in = const_cast<Bytef*>(static_cast<const Bytef*>(bytes));
  zs->avail_in = length;
  try {
    Bytes result;
    for (;;) {
      zs->next_out = chunk;
      zs->avail_out = static_cast<uInt>(kChunkSize);
      const int status = inflate(zs, Z_NO_FLUSH);
      if (status != Z_OK && status != Z_STREAM_END) return std::nullopt;
      const std::size_t produced = kChunkSize - zs->avail_out;
      if (maxLength && produced > *maxLength - result.size()) return std::nullopt;
      // Grow by exactly what this pass produced: reserve() of the exact size
      // keeps insert() from over-allocating.
      result.reserve(result.size() + produced);
      result.insert(result.end(), chunk, chunk + produced);
      // The loop ends on the first pass that leaves room, not on the end of
      // the stream: a truncated stream yields what was decoded so far.
      if (zs->avail_out != 0) break;
    }
    return result;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

std::optional<Bytes> dataWithCompressedData(const Bytes& data,
                                            std::optional<std::size_t> maxLength) {
  if (data.size() > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  return dataWithCompressedBytes(data.data(), static_cast<std::uint32_t>(data.size()), maxLength);
}

}  // namespace telvo
