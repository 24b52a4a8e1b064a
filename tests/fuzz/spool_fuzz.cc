// The file spool over arbitrary files: the input is a segment and an
// acknowledgement log (its first two bytes, little-endian, say how many of
// the rest are the segment's). Opening, reading, appending and acknowledging
// never crash; records come back in rising sequence order, within the record
// bound; what is appended reads back as it was, and what is acknowledged does
// not, before and after a reopen.
#include <dirent.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "delivery/spool.h"

namespace {

using telvo::delivery::SpooledRecord;

std::string makeFolder() {
  const char* shm = "/dev/shm";  // fsync costs nothing there
  std::string pattern =
      std::string(::access(shm, W_OK) == 0 ? shm : "/tmp") + "/telvo-spool-fuzz-XXXXXX";
  if (!::mkdtemp(pattern.data())) std::abort();
  static std::string folder = pattern;
  std::atexit([] { std::filesystem::remove_all(folder); });
  return pattern;
}

void write(const std::string& path, const std::uint8_t* data, std::size_t size) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

std::vector<SpooledRecord> readAll(telvo::delivery::Spool& spool, std::size_t maxRecordBytes) {
  std::vector<SpooledRecord> all;
  for (std::uint64_t after = 0;;) {
    auto some = spool.read(after, 5, 4096);
    if (some.empty()) return all;
    for (const auto& record : some) {
      if (record.sequence <= after || record.session.size() + record.body.size() > maxRecordBytes) {
        std::abort();
      }
      after = record.sequence;
      all.push_back(record);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string folder = makeFolder();
  std::filesystem::remove_all(folder);
  std::filesystem::create_directory(folder);
  const std::size_t split = size < 2 ? 0 : std::min<std::size_t>(data[0] | data[1] << 8, size - 2);
  const std::uint8_t* rest = size < 2 ? data : data + 2;
  const std::size_t restSize = size < 2 ? 0 : size - 2;
  write(folder + "/0000000000000001.seg", rest, split);
  write(folder + "/acks.log", rest + split, restSize - split);

  telvo::delivery::FileSpoolOptions options;
  options.maxBytes = 256 << 10;
  options.maxRecordBytes = 16 << 10;
  options.segmentBytes = 8 << 10;
  std::string error;
  auto spool = telvo::delivery::openFileSpool(folder, options, &error);
  if (!spool) std::abort();  // content alone never keeps it from opening
  auto before = readAll(*spool, options.maxRecordBytes);

  std::vector<SpooledRecord> added(2);
  added[0].body = "{\"e\":1}";
  added[1].kind = 1;
  added[1].session = "s";
  added[1].body.assign(reinterpret_cast<const char*>(data), std::min<std::size_t>(size, 300));
  if (!spool->append(added)) return 0;  // only when a file claims the last sequences
  const std::uint64_t after = before.empty() ? 0 : before.back().sequence;
  auto fresh = spool->read(after, 10, 1 << 20);
  if (fresh.size() != 2 || fresh[0].sequence <= after || fresh[0].body != added[0].body ||
      fresh[1].body != added[1].body || fresh[1].session != "s" || fresh[1].kind != 1) {
    std::abort();
  }

  std::vector<std::uint64_t> forget;
  for (std::size_t i = 0; i < before.size(); i += 2) forget.push_back(before[i].sequence);
  forget.push_back(added[0].sequence);
  if (!spool->acknowledge(forget)) std::abort();
  for (int reopen = 0; reopen < 2; ++reopen) {
    const auto now = readAll(*spool, options.maxRecordBytes);
    if (now.empty() || now.back().sequence != added[1].sequence) std::abort();
    for (const auto& record : now) {
      for (std::uint64_t gone : forget) {
        if (record.sequence == gone) std::abort();
      }
    }
    spool.reset();
    spool = telvo::delivery::openFileSpool(folder, options, &error);
    if (!spool) std::abort();
  }
  return 0;
}
