#include "telvo/gzip.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <random>

namespace telvo {
namespace {

constexpr std::size_t kChunk = 128 * 1024;

// Compressible but not trivial: short random words.
Bytes sampleData(std::size_t size, unsigned seed = 1) {
  std::mt19937 rng(seed);
  Bytes data(size);
  for (auto& b : data) b = static_cast<std::uint8_t>('a' + rng() % 12);
  return data;
}

TEST(Compress, ProducesZlibStreamThatInflatesBack) {
  const Bytes data = sampleData(5000);
  const auto packed = compressedDataWithData(data);
  ASSERT_TRUE(packed);
  ASSERT_GE(packed->size(), 2u);
  EXPECT_EQ((*packed)[0], 0x78);  // zlib header at the default settings, never 1F 8B
  EXPECT_EQ((((*packed)[0] << 8) | (*packed)[1]) % 31, 0);
  EXPECT_EQ(dataWithCompressedData(*packed), data);
  // Same bytes as zlib's one-shot compress at the default level.
  Bytes reference(compressBound(data.size()));
  uLongf length = reference.size();
  ASSERT_EQ(compress(reference.data(), &length, data.data(), data.size()), Z_OK);
  reference.resize(length);
  EXPECT_EQ(*packed, reference);
}

TEST(Compress, EmptyInputRoundTripsButEmptyStreamIsNothing) {
  const auto packed = compressedDataWithData(Bytes{});
  ASSERT_TRUE(packed);
  EXPECT_FALSE(packed->empty());
  EXPECT_EQ(dataWithCompressedData(*packed), Bytes{});
  EXPECT_EQ(dataWithCompressedData(Bytes{}), std::nullopt);
  EXPECT_EQ(dataWithCompressedBytes(nullptr, 0), std::nullopt);
  EXPECT_EQ(compressedDataWithBytes(nullptr, 10), std::nullopt);
}

TEST(Inflate, RefusesOtherFormats) {
  const Bytes data = sampleData(1000);
  // A gzip file of the same data.
  z_stream zs{};
  ASSERT_EQ(deflateInit2(&zs, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY),
            Z_OK);
  Bytes gz(deflateBound(&zs, data.size()) + 32);
  zs.next_in = const_cast<Bytef*>(data.data());
  zs.avail_in = static_cast<uInt>(data.size());
  zs.next_out = gz.data();
  zs.avail_out = static_cast<uInt>(gz.size());
  ASSERT_EQ(deflate(&zs, Z_FINISH), Z_STREAM_END);
  gz.resize(zs.total_out);
  deflateEnd(&zs);
  ASSERT_EQ(gz[0], 0x1F);
  EXPECT_EQ(dataWithCompressedData(gz), std::nullopt);
  // Raw deflate data (the zlib stream without its header) and plain text.
  const Bytes zlib = *compressedDataWithData(data);
  EXPECT_EQ(dataWithCompressedData(Bytes(zlib.begin() + 2, zlib.end())), std::nullopt);
  EXPECT_EQ(dataWithCompressedData(data), std::nullopt);
}

TEST(Inflate, PassesThroughTheChunk) {
  // 300 KiB takes three passes; exactly 256 KiB takes a third, empty pass.
  for (std::size_t size : {std::size_t{300 * 1024}, 2 * kChunk, kChunk, kChunk - 1, kChunk + 1}) {
    const Bytes data = sampleData(size, static_cast<unsigned>(size));
    const auto packed = compressedDataWithData(data);
    ASSERT_TRUE(packed);
    const auto inflated = dataWithCompressedData(*packed);
    ASSERT_TRUE(inflated) << size;
    EXPECT_EQ(*inflated, data) << size;
    EXPECT_EQ(inflated->capacity(), inflated->size()) << "growth must be exact";
  }
}

TEST(Inflate, TruncatedAndTrailingInput) {
  const Bytes data = sampleData(200 * 1024);
  Bytes packed = *compressedDataWithData(data);
  // Cut in the middle: a prefix of the data, not nothing.
  const auto prefix =
      dataWithCompressedData(Bytes(packed.begin(), packed.begin() + packed.size() / 2));
  ASSERT_TRUE(prefix);
  EXPECT_GT(prefix->size(), 0u);
  EXPECT_LT(prefix->size(), data.size());
  EXPECT_TRUE(std::equal(prefix->begin(), prefix->end(), data.begin()));
  // Trailing bytes after the end of the stream change nothing.
  packed.insert(packed.end(), {1, 2, 3, 4, 5});
  EXPECT_EQ(dataWithCompressedData(packed), data);
}

TEST(Inflate, TruncatedAtExactChunkMultipleGivesNothing) {
  // A stored (level 0) stream puts each input byte at a known place, so the
  // cut can land right after the first 128 KiB of output.
  const Bytes data = sampleData(kChunk + 1000);
  Bytes stored(compressBound(data.size()));
  uLongf length = stored.size();
  ASSERT_EQ(compress2(stored.data(), &length, data.data(), data.size(), 0), Z_OK);
  stored.resize(length);
  // Walk the stored blocks (byte-aligned: header byte, LEN, NLEN, data) to
  // the input offset that ends exactly 128 KiB of output.
  std::size_t pos = 2, need = kChunk, cut = 0;
  while (cut == 0) {
    ASSERT_LT(pos + 5, stored.size());
    const std::size_t len = stored[pos + 1] | (stored[pos + 2] << 8);
    ASSERT_EQ(len ^ 0xFFFF, std::size_t(stored[pos + 3] | (stored[pos + 4] << 8)));
    pos += 5;
    if (need <= len) cut = pos + need;
    need -= std::min(need, len);
    pos += len;
  }
  const auto result = dataWithCompressedData(Bytes(stored.begin(), stored.begin() + cut));
  EXPECT_EQ(result, std::nullopt);
  const auto oneMore = dataWithCompressedData(Bytes(stored.begin(), stored.begin() + cut + 1));
  ASSERT_TRUE(oneMore);
  EXPECT_EQ(oneMore->size(), kChunk + 1);
}

TEST(GzipRoundTrip, RandomBuffers) {
  std::mt19937 rng(11);
  for (std::size_t size = 0; size < 400000; size = size * 3 + 1 + rng() % 50) {
    Bytes data(size);
    for (auto& b : data) b = static_cast<std::uint8_t>(rng() % (1 + size % 256));
    const auto packed = compressedDataWithData(data);
    ASSERT_TRUE(packed);
    EXPECT_EQ(dataWithCompressedData(*packed), data) << size;
  }
}

TEST(Inflate, AnOutputLimitStopsABombEarly) {
  const Bytes zeros(std::size_t{16} << 20, 0);
  const auto packed = compressedDataWithData(zeros);
  ASSERT_TRUE(packed);
  EXPECT_FALSE(dataWithCompressedData(*packed, std::size_t{1} << 20));
  EXPECT_FALSE(dataWithCompressedData(*packed, zeros.size() - 1));
  const auto exact = dataWithCompressedData(*packed, zeros.size());
  ASSERT_TRUE(exact);
  EXPECT_EQ(exact->size(), zeros.size());
  EXPECT_EQ(dataWithCompressedData(*packed), exact);
}

}  // namespace
}  // namespace telvo
