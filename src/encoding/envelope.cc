// The envelope's encoder: the body of every hello, batch post and error post.
// The decoder, for the collector and the tool, is envelope_decode.cc.
#include "telvo/envelope.h"

#include <zlib.h>

#include <algorithm>
#include <memory>
#include <new>

#include "encoding/base64_detail.h"
#include "encoding/envelope_request.h"
#include "telvo/url.h"

namespace telvo {

using encoding::kParameterPrefix;

std::optional<Bytes> buildTelvoJsonParameter(std::string_view json) {
  try {
    z_stream zs{};
    if (deflateInit(&zs, Z_DEFAULT_COMPRESSION) != Z_OK) return std::nullopt;
    std::unique_ptr<z_stream, int (*)(z_stream*)> guard(&zs, deflateEnd);
    const std::size_t plainLength = kParameterPrefix.size() + json.size();
    const std::size_t bound = deflateBound(&zs, plainLength);
    // Bodies of ordinary size are compressed into a per-thread block: a fresh
    // one per call costs page faults each time the allocator hands memory back
    // to the system, a sizeable share of the compression time for small
    // bodies. Only the Base64 text ends up in the result.
    constexpr std::size_t kKeptScratch = 1 << 20;
    thread_local std::unique_ptr<Bytef[]> kept;
    std::unique_ptr<Bytef[]> oneOff;
    Bytef* packed;
    if (bound <= kKeptScratch) {
      if (!kept) kept.reset(new Bytef[kKeptScratch]);
      packed = kept.get();
    } else {
      oneOff.reset(new Bytef[bound]);
      packed = oneOff.get();
    }

    // The prefix and the text go in one after the other, so the text is never
    // copied; deflate holds input back until it has enough, so the stream is
    // byte for byte what one compress() of the joined text gives. zlib counts
    // in 32 bits: larger inputs and outputs go through in slices.
    constexpr std::size_t kSlice = static_cast<uInt>(-1);
    std::size_t outLeft = bound;
    zs.next_out = packed;
    zs.avail_out = 0;
    auto feed = [&](std::string_view text, int lastFlush) {
      zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
      std::size_t inLeft = text.size();
      for (;;) {
        if (zs.avail_in == 0 && inLeft > 0) {
          zs.avail_in = static_cast<uInt>(std::min(inLeft, kSlice));
          inLeft -= zs.avail_in;
        }
        if (zs.avail_out == 0) {
          if (outLeft == 0) return false;
          zs.avail_out = static_cast<uInt>(std::min(outLeft, kSlice));
          outLeft -= zs.avail_out;
        }
        const int flush = inLeft == 0 ? lastFlush : Z_NO_FLUSH;
        const int status = deflate(&zs, flush);
        if (status == Z_STREAM_END) return true;
        if (status != Z_OK && !(status == Z_BUF_ERROR && zs.avail_out == 0)) return false;
        if (flush == Z_NO_FLUSH && zs.avail_in == 0 && inLeft == 0) return true;
      }
    };
    if (!feed(kParameterPrefix, Z_NO_FLUSH) || !feed(json, Z_FINISH)) return std::nullopt;
    const std::size_t packedLength = zs.total_out;
    Bytes body(base64_detail::encodedLength(packedLength, 0));
    base64_detail::encodeInto(packed, packedLength, 0, body.data());
    return body;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

namespace encoding {

URLRequest envelopeRequest(const std::string& address, std::string_view json) {
  URLRequest request(URLWithURLStringConversion(address), kRequestCachePolicy, kRequestTimeout);
  request.HTTPMethod = "POST";
  request.setValue(kEnvelopeContentType, "Content-Type");
  request.setValue(kEnvelopeContentEncoding, "Content-Encoding");
  request.HTTPBody = buildTelvoJsonParameter(json);
  return request;
}

}  // namespace encoding
}  // namespace telvo
