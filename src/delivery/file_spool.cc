// The file spool. In its folder:
//   lock          flock()ed while open; holds the holder's process id
//   <16 hex>.seg  segments: append-only logs of record frames, numbered in the
//                 order they were started
//   acks.log      acknowledgement frames
//   *.tmp         a rewrite under way (removed at open)
//
// Every frame, in segments and in the acknowledgement log alike:
//    0  magic FF 'T' 'S' '1' (0xFF never occurs in UTF-8 text)
//    4  CRC-32 of bytes 8 to the end of the frame
//    8  type: 1 record, 2 acknowledgements
//    9  kind (0 in acknowledgements)
//   10  two zero bytes
//   12  session length, 32 bits little-endian (0 in acknowledgements)
//   16  body length, 32 bits little-endian
//   20  sequence, 64 bits little-endian: the record's; in acknowledgements the
//       highest sequence reserved (below)
//   28  session, then body. An acknowledgement's body: at most 128 ranges of
//       sequences, first and last, 64 bits little-endian each.
//
// A record waits when it is in a segment and no acknowledgement range holds
// its sequence. A rewritten acknowledgement log says the same in the fewest
// ranges: every sequence up to the highest given that does not wait. Sequences
// are handed out from blocks reserved in the acknowledgement log before use,
// so that none is given twice whatever becomes of the segments.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>

#include "delivery/spool.h"

namespace telvo {
namespace delivery {
namespace {

constexpr char kMagic[4] = {'\xFF', 'T', 'S', '1'};
constexpr std::size_t kHeaderBytes = 28;
constexpr std::uint8_t kRecordFrame = 1;
constexpr std::uint8_t kAckFrame = 2;
constexpr std::size_t kRangesPerFrame = 128;
constexpr std::uint64_t kMaxAckFrame = kHeaderBytes + 16 * kRangesPerFrame;
constexpr std::uint64_t kMinAckLogBytes = 2 * kHeaderBytes + 16;  // a range and a reservation
// Sequences and segment numbers go up to 2^62; above, a frame is corrupt. (A
// file claiming the last of them leaves a spool that refuses appends.)
constexpr std::uint64_t kMaxSequence = std::uint64_t{1} << 62;
constexpr std::uint64_t kSequenceBlock = 1 << 16;
constexpr std::size_t kWindowBytes = 64 << 10;
constexpr std::size_t kBookkeepingBytes = 1024;
constexpr std::size_t kMaxRecordLimit = std::size_t{1} << 30;
constexpr const char* kAckLogName = "acks.log";

void put(char* p, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) p[i] = static_cast<char>(value >> (8 * i));
}
std::uint64_t get(const char* p, int bytes) {
  std::uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i) value = value << 8 | static_cast<std::uint8_t>(p[i]);
  return value;
}
std::uint32_t checksum(const char* frame, std::size_t size) {
  return static_cast<std::uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(frame + 8), static_cast<uInt>(size - 8)));
}

struct Header {
  std::uint8_t type = 0, kind = 0;
  std::uint32_t sessionBytes = 0, bodyBytes = 0;
  std::uint64_t sequence = 0;
  std::uint64_t frameBytes() const {
    return kHeaderBytes + std::uint64_t{sessionBytes} + bodyBytes;
  }
};

// The caller keeps session and body below 1 GiB each.
void appendFrame(std::string* out, std::uint8_t type, std::uint8_t kind, std::uint64_t sequence,
                 std::string_view session, std::string_view body) {
  const std::size_t start = out->size();
  out->resize(start + kHeaderBytes);
  char* p = &(*out)[start];
  std::memcpy(p, kMagic, sizeof kMagic);
  p[8] = static_cast<char>(type);
  p[9] = static_cast<char>(kind);
  put(p + 12, session.size(), 4);
  put(p + 16, body.size(), 4);
  put(p + 20, sequence, 8);
  out->append(session).append(body);
  put(&(*out)[start + 4], checksum(out->data() + start, out->size() - start), 4);
}

// The header at `p`, when it has the magic and values this spool writes.
// Lengths are the caller's to check.
bool parseHeader(const char* p, Header* h) {
  if (std::memcmp(p, kMagic, sizeof kMagic) != 0 || p[10] != 0 || p[11] != 0) return false;
  h->type = static_cast<std::uint8_t>(p[8]);
  h->kind = static_cast<std::uint8_t>(p[9]);
  h->sessionBytes = static_cast<std::uint32_t>(get(p + 12, 4));
  h->bodyBytes = static_cast<std::uint32_t>(get(p + 16, 4));
  h->sequence = get(p + 20, 8);
  return h->sequence <= kMaxSequence &&
         (h->type == kRecordFrame ||
          (h->type == kAckFrame && h->kind == 0 && h->sessionBytes == 0 && h->bodyBytes % 16 == 0));
}

// Acknowledgement frames carrying `reserved`, filled range by range.
struct AckFrames {
  std::uint64_t reserved;
  std::string text, ranges;
  void add(std::uint64_t first, std::uint64_t last) {
    ranges.resize(ranges.size() + 16);
    put(&ranges[ranges.size() - 16], first, 8);
    put(&ranges[ranges.size() - 8], last, 8);
    if (ranges.size() == 16 * kRangesPerFrame) finish();
  }
  void finish() {
    appendFrame(&text, kAckFrame, 0, reserved, {}, ranges);
    ranges.clear();
  }
};

bool writeAt(int fd, std::string_view data, std::uint64_t offset) {
  while (!data.empty()) {
    const ssize_t n = ::pwrite(fd, data.data(), data.size(), static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(static_cast<std::size_t>(n));
    offset += static_cast<std::uint64_t>(n);
  }
  return true;
}

bool readAt(int fd, char* out, std::size_t size, std::uint64_t offset) {
  while (size > 0) {
    const ssize_t n = ::pread(fd, out, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    out += n;
    size -= static_cast<std::size_t>(n);
    offset += static_cast<std::uint64_t>(n);
  }
  return true;
}

// Reads a file through a window of kWindowBytes (or one frame, when larger),
// so that scanning small frames costs one read per window.
class FileReader {
 public:
  FileReader(int fd, std::uint64_t size) : fd_(fd), size_(size) {}

  // The `length` bytes at `offset`, valid until the next call; null past the
  // end or on a read error.
  const char* get(std::uint64_t offset, std::size_t length) {
    if (offset > size_ || length > size_ - offset) return nullptr;
    if (offset >= start_ && offset - start_ <= have_ && length <= have_ - (offset - start_)) {
      return buffer_.data() + (offset - start_);
    }
    const auto want = static_cast<std::size_t>(
        std::min<std::uint64_t>(std::max(kWindowBytes, length), size_ - offset));
    if (buffer_.size() < want) buffer_.resize(want);
    start_ = offset;
    have_ = readAt(fd_, buffer_.data(), want, offset) ? want : 0;
    return have_ >= length ? buffer_.data() : nullptr;
  }

  // Where the next magic at or after `from` starts; the size when none does.
  std::uint64_t findMagic(std::uint64_t from) {
    const std::string_view magic(kMagic, sizeof kMagic);
    while (from < size_ && size_ - from >= magic.size()) {
      const auto length =
          static_cast<std::size_t>(std::min<std::uint64_t>(kWindowBytes, size_ - from));
      const char* p = get(from, length);
      if (!p) break;
      const auto hit = std::string_view(p, length).find(magic);
      if (hit != std::string_view::npos) return from + hit;
      from += length - (magic.size() - 1);
    }
    return size_;
  }

 private:
  int fd_;
  std::uint64_t size_;
  std::string buffer_;
  std::uint64_t start_ = 0;
  std::size_t have_ = 0;
};

// Calls accept(header, offset, frame) for each whole frame in the first `size`
// bytes of the file whose checksum holds, in order; one it refuses counts as
// corrupt. Anything else (a torn tail, a flipped byte, garbage) is skipped to
// the next magic and counted once. No length read is trusted beyond
// `maxFrame` and the bytes left.
template <typename Accept>
void scanFrames(int fd, std::uint64_t size, std::uint64_t maxFrame, std::uint64_t* corrupt,
                Accept&& accept) {
  FileReader reader(fd, size);
  bool skipping = false;
  for (std::uint64_t at = 0; at < size;) {
    Header h;
    const char* p = reader.get(at, kHeaderBytes);
    if (p && parseHeader(p, &h) && h.frameBytes() <= maxFrame && h.frameBytes() <= size - at) {
      const auto bytes = static_cast<std::size_t>(h.frameBytes());
      p = reader.get(at, bytes);
      if (p && get(p + 4, 4) == checksum(p, bytes)) {
        if (!accept(h, at, p)) ++*corrupt;
        at += bytes;
        skipping = false;
        continue;
      }
    }
    if (!skipping) ++*corrupt;
    skipping = true;
    at = reader.findMagic(at + 1);
  }
}

std::string segmentName(std::uint64_t id) {
  char name[32];
  std::snprintf(name, sizeof name, "%016" PRIx64 ".seg", id);
  return name;
}

bool parseSegmentName(std::string_view name, std::uint64_t* id) {
  if (name.size() != 20 || name.substr(16) != ".seg") return false;
  std::uint64_t value = 0;
  for (char c : name.substr(0, 16)) {
    const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (digit < 0) return false;
    value = value << 4 | static_cast<unsigned>(digit);
  }
  *id = value;
  return value > 0 && value <= kMaxSequence;
}

// mkdir -p, owner-only for what it creates, and the parent of a created last
// folder flushed; 0 or an errno.
int makeFolders(const std::string& path) {
  bool created = false;
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    if (::mkdir(path.substr(0, end).c_str(), 0700) == 0) {
      created = end == std::string::npos || end + 1 == path.size();
    } else if (errno != EEXIST) {
      return errno;
    }
    if (end == std::string::npos) break;
  }
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return errno;
  if (!S_ISDIR(info.st_mode)) return ENOTDIR;
  const int parent =
      created ? ::open((path + "/..").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
  if (parent >= 0) {
    ::fsync(parent);  // best effort, as for every folder: some file systems refuse it
    ::close(parent);
  }
  return 0;
}

class FileSpool final : public Spool {
 public:
  FileSpool(std::string path, const FileSpoolOptions& options)
      : path_(std::move(path)),
        maxBytes_(options.maxBytes),
        recordLimit_(std::min({options.maxRecordBytes, kMaxRecordLimit,
                               options.maxBytes - std::min(options.maxBytes, kBookkeepingBytes)})),
        segmentBytes_(std::clamp<std::size_t>(options.segmentBytes, 1024,
                                              std::max<std::size_t>(options.maxBytes / 4, 1024))),
        maxSegments_(std::max<std::size_t>(options.maxSegmentFiles, 2)),
        ackCompactBase_(std::clamp<std::size_t>(options.maxBytes / 64, 4096, 256 << 10)) {}

  // Never flock(LOCK_UN): a process forked meanwhile shares the lock's open
  // file, and closing is what lets go of it.
  ~FileSpool() override {
    for (int fd : {active_, acks_, lock_, folder_}) {
      if (fd >= 0) ::close(fd);
    }
  }

  bool open(std::string* error);

  bool append(std::vector<SpooledRecord>& records) override {
    std::lock_guard<std::mutex> guard(mutex_);
    for (auto& record : records) record.sequence = 0;
    if (records.empty()) return true;
    std::uint64_t need = 0;
    bool tooLarge = false;
    for (const auto& record : records) {
      const std::uint64_t bytes = std::uint64_t{record.session.size()} + record.body.size();
      tooLarge = tooLarge || bytes > recordLimit_;
      need += kHeaderBytes + bytes;
    }
    if (tooLarge || need + lockBytes_ + kMinAckLogBytes > maxBytes_) {
      counts_.refused += records.size();
      return false;
    }
    if (records.size() > kMaxSequence - lastSequence_ || !reserve(lastSequence_ + records.size()) ||
        !makeRoom(need)) {
      return false;
    }
    if (active_ >= 0 && segments_[activeId_].fileBytes > 0 &&
        segments_[activeId_].fileBytes + need > segmentBytes_) {
      closeActive();
    }
    if (active_ < 0 && !openActive()) return false;
    Segment& segment = segments_[activeId_];
    std::string text;
    text.reserve(static_cast<std::size_t>(need));
    const std::uint64_t first = lastSequence_ + 1;
    for (const auto& record : records) {
      appendFrame(&text, kRecordFrame, record.kind, ++lastSequence_, record.session, record.body);
    }
    if (!writeAt(active_, text, segment.fileBytes) || ::fsync(active_) != 0) {
      // Take the frames back; when even that fails, count what the file holds
      // and start a new segment.
      if (::ftruncate(active_, static_cast<off_t>(segment.fileBytes)) != 0 ||
          ::fsync(active_) != 0) {
        struct stat info {};
        if (::fstat(active_, &info) == 0)
          segment.fileBytes = static_cast<std::uint64_t>(info.st_size);
        closeActive();
      }
      return false;  // the sequences stay used
    }
    std::uint64_t offset = segment.fileBytes;
    for (std::size_t i = 0; i < records.size(); ++i) {
      auto& record = records[i];
      record.sequence = first + i;
      const auto bytes =
          static_cast<std::uint32_t>(kHeaderBytes + record.session.size() + record.body.size());
      entries_.push_back({record.sequence, activeId_, offset, bytes});
      offset += bytes;
    }
    segment.fileBytes += need;
    segment.liveBytes += need;
    segment.live += records.size();
    tidy();
    return true;
  }

  std::vector<SpooledRecord> read(std::uint64_t after, std::size_t maxRecords,
                                  std::size_t maxBytes) override {
    std::lock_guard<std::mutex> guard(mutex_);
    std::vector<SpooledRecord> out;
    std::vector<std::uint64_t> bad;
    std::size_t bytes = 0;
    int fd = -1;
    std::uint64_t fdSegment = 0;
    std::string frame;
    auto it = after == UINT64_MAX ? entries_.end() : lowerBound(after + 1);
    for (; it != entries_.end() && out.size() < maxRecords; ++it) {
      const std::size_t size = it->bytes - kHeaderBytes;
      if (!out.empty() && bytes + size > maxBytes) break;
      if (fd < 0 || fdSegment != it->segment) {
        if (fd >= 0 && fd != active_) ::close(fd);
        fdSegment = it->segment;
        fd = fdSegment == activeId_ && active_ >= 0 ? active_
                                                    : openAt(segmentName(fdSegment), O_RDONLY);
      }
      if (fd < 0 || !loadFrame(fd, *it, &frame)) {
        bad.push_back(it->sequence);
        continue;
      }
      const auto sessionBytes = static_cast<std::size_t>(get(frame.data() + 12, 4));  // checked
      SpooledRecord& record = out.emplace_back();
      record.sequence = it->sequence;
      record.kind = static_cast<std::uint8_t>(frame[9]);
      record.session.assign(frame, kHeaderBytes, sessionBytes);
      record.body.assign(frame, kHeaderBytes + sessionBytes, std::string::npos);
      bytes += size;
    }
    if (fd >= 0 && fd != active_) ::close(fd);
    counts_.corruptSkipped += bad.size();
    forget(bad);
    return out;
  }

  bool acknowledge(const std::vector<std::uint64_t>& sequences) override {
    std::lock_guard<std::mutex> guard(mutex_);
    std::vector<std::uint64_t> known;
    for (std::uint64_t sequence : sequences) {
      const auto it = lowerBound(sequence);
      if (it != entries_.end() && it->sequence == sequence) known.push_back(sequence);
    }
    if (known.empty()) return true;
    std::sort(known.begin(), known.end());
    known.erase(std::unique(known.begin(), known.end()), known.end());
    AckFrames frames{reserved_, {}, {}};
    for (std::size_t i = 0, j = 0; i < known.size(); i = ++j) {
      while (j + 1 < known.size() && known[j + 1] == known[j] + 1) ++j;
      frames.add(known[i], known[j]);
    }
    if (!frames.ranges.empty()) frames.finish();
    if (!writeAcks(frames.text)) return false;
    forget(known);
    tidy();
    makeRoom(0);  // the acknowledgement itself may have taken the last bytes
    return true;
  }

  Counts counts() const override {
    std::lock_guard<std::mutex> guard(mutex_);
    Counts counts = counts_;
    counts.records = entries_.size();
    counts.bytes = diskBytes();
    return counts;
  }

 private:
  struct Entry {  // a waiting record and where its frame lies
    std::uint64_t sequence, segment, offset;
    std::uint32_t bytes;  // the whole frame
  };
  struct Segment {
    std::uint64_t fileBytes = 0;
    std::uint64_t liveBytes = 0;  // the frames of its waiting records
    std::size_t live = 0;
  };
  using Entries = std::deque<Entry>;

  int openAt(const std::string& name, int flags) const {
    return ::openat(folder_, name.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, 0600);
  }
  void syncFolder() const { ::fsync(folder_); }  // best effort, see makeFolders

  std::uint64_t diskBytes() const {
    std::uint64_t bytes = lockBytes_ + ackBytes_;
    for (const auto& entry : segments_) bytes += entry.second.fileBytes;
    return bytes;
  }

  Entries::iterator lowerBound(std::uint64_t sequence) {
    return std::lower_bound(entries_.begin(), entries_.end(), sequence,
                            [](const Entry& e, std::uint64_t s) { return e.sequence < s; });
  }
  // Entries in sequence order are in segment order too: a segment's lie together.
  std::pair<Entries::iterator, Entries::iterator> entriesOf(std::uint64_t id) {
    auto lo = std::partition_point(entries_.begin(), entries_.end(),
                                   [id](const Entry& e) { return e.segment < id; });
    return {lo, std::partition_point(lo, entries_.end(),
                                     [id](const Entry& e) { return e.segment == id; })};
  }

  // Takes these records (sorted) off the index.
  void forget(const std::vector<std::uint64_t>& sequences) {
    if (sequences.empty()) return;
    auto it = lowerBound(sequences.front()), out = it;
    for (std::size_t k = 0; it != entries_.end() && k < sequences.size(); ++it) {
      while (k < sequences.size() && sequences[k] < it->sequence) ++k;
      if (k < sequences.size() && sequences[k] == it->sequence) {
        Segment& segment = segments_[it->segment];
        --segment.live;
        segment.liveBytes -= it->bytes;
      } else {
        *out++ = *it;
      }
    }
    entries_.erase(out, it);  // moves whichever side is shorter
  }

  // The record frame of `entry`, whole and unchanged.
  bool loadFrame(int fd, const Entry& entry, std::string* frame) const {
    frame->resize(entry.bytes);
    Header h;
    return readAt(fd, frame->data(), entry.bytes, entry.offset) && parseHeader(frame->data(), &h) &&
           h.type == kRecordFrame && h.sequence == entry.sequence &&
           h.frameBytes() == entry.bytes &&
           get(frame->data() + 4, 4) == checksum(frame->data(), entry.bytes);
  }

  bool openActive() {
    for (int attempt = 0; attempt < 4 && nextSegment_ <= kMaxSequence; ++attempt) {
      const std::uint64_t id = nextSegment_++;
      const int fd = openAt(segmentName(id), O_RDWR | O_CREAT | O_EXCL);
      if (fd < 0 && errno == EEXIST) continue;  // not ours: the next number
      if (fd < 0) return false;
      syncFolder();
      active_ = fd;
      activeId_ = id;
      segments_[id] = Segment{};
      return true;
    }
    return false;
  }
  void closeActive() {
    if (active_ >= 0) ::close(active_);
    active_ = -1;
  }

  bool writeAcks(const std::string& text) {
    if (!writeAt(acks_, text, ackBytes_) || ::fsync(acks_) != 0) {
      if (::ftruncate(acks_, static_cast<off_t>(ackBytes_)) == 0) ::fsync(acks_);
      return false;
    }
    ackBytes_ += text.size();
    return true;
  }

  // Makes sure the sequences up to `last` are reserved.
  bool reserve(std::uint64_t last) {
    if (last <= reserved_) return true;
    AckFrames frames{std::min(kMaxSequence, last + kSequenceBlock), {}, {}};
    frames.finish();
    if (!writeAcks(frames.text)) return false;
    reserved_ = frames.reserved;
    return true;
  }

  // Replaces the acknowledgement log with the shortest that says the same.
  bool rewriteAckLog() {
    const std::string temporary = std::string(kAckLogName) + ".tmp";
    const int fd = openAt(temporary, O_RDWR | O_CREAT | O_TRUNC);
    if (fd < 0) return false;
    AckFrames frames{std::max(reserved_, lastSequence_), {}, {}};
    std::uint64_t written = 0;
    bool ok = true;
    auto spill = [&] {
      ok = ok && writeAt(fd, frames.text, written);
      written += frames.text.size();
      frames.text.clear();
    };
    std::uint64_t next = 1;  // the first sequence not yet said
    for (const Entry& entry : entries_) {
      if (entry.sequence > next) frames.add(next, entry.sequence - 1);
      next = entry.sequence + 1;
      if (frames.text.size() >= kWindowBytes) spill();
    }
    if (lastSequence_ >= next) frames.add(next, lastSequence_);
    if (!frames.ranges.empty() || (written == 0 && frames.text.empty())) frames.finish();
    spill();
    ok =
        ok && ::fsync(fd) == 0 && ::renameat(folder_, temporary.c_str(), folder_, kAckLogName) == 0;
    if (!ok) {
      ::close(fd);
      ::unlinkat(folder_, temporary.c_str(), 0);
      return false;
    }
    syncFolder();
    if (acks_ >= 0) ::close(acks_);
    acks_ = fd;
    ackBytes_ = ackRewrittenBytes_ = written;
    reserved_ = frames.reserved;
    ackCompactAt_ = std::max<std::uint64_t>(ackCompactBase_, 2 * written);
    return true;
  }

  // Removes segments none of whose records is on the index any more.
  void deleteSegments(const std::vector<std::uint64_t>& ids) {
    for (std::uint64_t id : ids) {
      if (active_ >= 0 && id == activeId_) closeActive();
      ::unlinkat(folder_, segmentName(id).c_str(), 0);
      segments_.erase(id);
    }
    syncFolder();
  }

  // Rewrites a segment with the frames of its waiting records only.
  bool rewriteSegment(std::uint64_t id) {
    if (active_ >= 0 && id == activeId_) closeActive();
    const std::string name = segmentName(id), temporary = name + ".tmp";
    const auto [lo, hi] = entriesOf(id);
    const int from = openAt(name, O_RDONLY);
    const int to = openAt(temporary, O_WRONLY | O_CREAT | O_TRUNC);
    bool ok = from >= 0 && to >= 0;
    std::vector<std::uint64_t> offsets;
    std::uint64_t written = 0;
    std::string frame;
    for (auto it = lo; ok && it != hi; ++it) {
      ok = loadFrame(from, *it, &frame) && writeAt(to, frame, written);
      offsets.push_back(written);
      written += frame.size();
    }
    ok = ok && ::fsync(to) == 0 &&
         ::renameat(folder_, temporary.c_str(), folder_, name.c_str()) == 0;
    if (from >= 0) ::close(from);
    if (to >= 0) ::close(to);
    if (!ok) {
      ::unlinkat(folder_, temporary.c_str(), 0);
      return false;
    }
    syncFolder();
    for (auto it = lo; it != hi; ++it) it->offset = offsets[static_cast<std::size_t>(it - lo)];
    segments_[id].fileBytes = written;
    return true;
  }

  // Deletes the segments no record waits in (the one taking appends only once
  // full), and rewrites the acknowledgement log when it has grown.
  void tidy() {
    std::vector<std::uint64_t> dead;
    for (const auto& [id, segment] : segments_) {
      const bool taking = active_ >= 0 && id == activeId_ && segment.fileBytes < segmentBytes_;
      if (segment.live == 0 && !taking) dead.push_back(id);
    }
    if (!dead.empty()) deleteSegments(dead);
    if (ackBytes_ > ackCompactAt_) rewriteAckLog();
  }

  bool fits(std::uint64_t need) const {
    bool fresh = false;  // the append will start a segment
    if (need > 0) {
      const auto active = segments_.find(activeId_);
      fresh = active_ < 0 || active == segments_.end() ||
              (active->second.fileBytes > 0 && active->second.fileBytes + need > segmentBytes_);
    }
    return diskBytes() + need <= maxBytes_ && segments_.size() + fresh <= maxSegments_;
  }

  // Makes room for `need` more bytes of frames: first from what acknowledged
  // records hold, then by dropping the oldest segments. False when it cannot.
  bool makeRoom(std::uint64_t need) {
    std::vector<std::uint64_t> ids;
    for (const auto& entry : segments_) ids.push_back(entry.first);
    for (std::uint64_t id : ids) {
      if (fits(need)) return true;
      const Segment& segment = segments_.at(id);
      if (segment.live == 0) {
        deleteSegments({id});
      } else if (segment.liveBytes * 2 <= segment.fileBytes) {
        rewriteSegment(id);
      }
    }
    if (!fits(need) && ackBytes_ > ackRewrittenBytes_) rewriteAckLog();
    while (!fits(need) && !segments_.empty()) {
      const std::uint64_t id = segments_.begin()->first;
      const auto [lo, hi] = entriesOf(id);
      counts_.droppedOldest += static_cast<std::uint64_t>(hi - lo);
      entries_.erase(lo, hi);
      deleteSegments({id});
    }
    if (!fits(need)) rewriteAckLog();  // fewer ranges now
    return fits(need);
  }

  mutable std::mutex mutex_;
  const std::string path_;
  const std::uint64_t maxBytes_;
  const std::uint64_t recordLimit_;  // session and body of one record
  const std::uint64_t segmentBytes_;
  const std::size_t maxSegments_;
  const std::uint64_t ackCompactBase_;

  int folder_ = -1, lock_ = -1, acks_ = -1;
  int active_ = -1;  // the segment taking appends, when open
  std::uint64_t activeId_ = 0;
  std::uint64_t nextSegment_ = 1;
  std::uint64_t lastSequence_ = 0;  // the highest given or seen
  std::uint64_t reserved_ = 0;      // the highest the acknowledgement log reserves
  std::uint64_t lockBytes_ = 0;
  std::uint64_t ackBytes_ = 0, ackRewrittenBytes_ = 0, ackCompactAt_ = 0;
  Entries entries_;  // the waiting records, in sequence order
  std::map<std::uint64_t, Segment> segments_;
  Counts counts_;
};

bool FileSpool::open(std::string* error) {
  auto fail = [&](const std::string& what, int code) {
    if (error)
      *error =
          "spool " + path_ + ": " + what + (code ? ": " + std::string(std::strerror(code)) : "");
    return false;
  };
  if (maxBytes_ < 4096) return fail("maxBytes is below 4096", 0);
  if (const int code = makeFolders(path_)) return fail("cannot create the folder", code);
  folder_ = ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder_ < 0) return fail("cannot open the folder", errno);

  lock_ = openAt("lock", O_RDWR | O_CREAT);
  if (lock_ < 0) return fail("cannot open its lock file", errno);
  if (::flock(lock_, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) return fail("cannot lock it", errno);
    char text[10] = {};
    long pid = 0;  // at most 9 digits: Linux's pid_max is 2^22
    if (::pread(lock_, text, 9, 0) > 0) {
      for (const char* p = text; *p >= '0' && *p <= '9'; ++p) pid = pid * 10 + (*p - '0');
    }
    if (error) {
      *error = "spool " + path_ + " is already in use by " +
               (pid <= 0            ? "another process"
                : pid == ::getpid() ? "this process (" + std::to_string(pid) + ")"
                                    : "process " + std::to_string(pid));
    }
    return false;
  }
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(lock_, 0) != 0 || !writeAt(lock_, pid, 0))
    return fail("cannot write its lock file", errno);
  lockBytes_ = pid.size();

  // The folder's names: segments, and rewrites a crash interrupted.
  std::vector<std::uint64_t> ids;
  std::vector<std::string> leftovers;
  DIR* dir = ::fdopendir(::dup(folder_));
  if (!dir) return fail("cannot list the folder", errno);
  std::size_t listed = 0;
  while (const dirent* entry = ::readdir(dir)) {
    if (++listed > maxSegments_ * 16 + 64) break;
    const std::string_view name = entry->d_name;
    std::uint64_t id = 0;
    if (parseSegmentName(name, &id)) {
      ids.push_back(id);
    } else if (name == std::string(kAckLogName) + ".tmp" ||
               (name.size() == 24 && name.substr(20) == ".tmp" &&
                parseSegmentName(name.substr(0, 20), &id))) {
      leftovers.emplace_back(name);
    }
  }
  ::closedir(dir);
  for (const auto& name : leftovers) ::unlinkat(folder_, name.c_str(), 0);

  // Acknowledged ranges, and the highest sequence they know of. A log
  // larger than the bound was not written under it: it is read that far.
  std::vector<std::pair<std::uint64_t, std::uint64_t>> acked;
  if (const int fd = openAt(kAckLogName, O_RDONLY); fd >= 0) {
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
      const auto size = static_cast<std::uint64_t>(info.st_size);
      if (size > maxBytes_) ++counts_.corruptSkipped;
      scanFrames(fd, std::min(size, maxBytes_), kMaxAckFrame, &counts_.corruptSkipped,
                 [&](const Header& h, std::uint64_t, const char* frame) {
                   if (h.type != kAckFrame) return false;
                   lastSequence_ = std::max(lastSequence_, h.sequence);
                   for (const char* p = frame + kHeaderBytes; p < frame + h.frameBytes(); p += 16) {
                     const std::uint64_t first = get(p, 8), last = get(p + 8, 8);
                     if (first <= last && last <= kMaxSequence) acked.emplace_back(first, last);
                   }
                   return true;
                 });
    }
    ::close(fd);
  }
  // By first sequence: the first range not ending below a sequence holds it, if any does.
  std::sort(acked.begin(), acked.end());
  for (const auto& range : acked) lastSequence_ = std::max(lastSequence_, range.second);

  // Segments, newest first within the bound: older ones are beyond anything
  // this bound keeps and are removed unread.
  std::sort(ids.begin(), ids.end());
  if (!ids.empty()) nextSegment_ = ids.back() + 1;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> kept;  // number, size
  std::uint64_t budget = maxBytes_ - lockBytes_;
  for (auto it = ids.rbegin(); it != ids.rend(); ++it) {
    struct stat info {};
    const std::string name = segmentName(*it);
    if (::fstatat(folder_, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(info.st_mode)) {
      continue;  // not ours
    }
    const auto size = static_cast<std::uint64_t>(info.st_size);
    if (kept.size() < maxSegments_ && size <= budget) {
      kept.emplace_back(*it, size);
      budget -= size;
    } else {
      budget = 0;
      ::unlinkat(folder_, name.c_str(), 0);
      ++counts_.discardedFiles;
    }
  }
  std::uint64_t highest = 0;  // in segments
  std::size_t range = 0;
  for (auto it = kept.rbegin(); it != kept.rend(); ++it) {
    const std::uint64_t id = it->first;
    const int fd = openAt(segmentName(id), O_RDONLY);
    if (fd < 0) continue;  // left alone, and not counted
    Segment& segment = segments_[id];
    segment.fileBytes = it->second;
    scanFrames(
        fd, segment.fileBytes, kHeaderBytes + recordLimit_, &counts_.corruptSkipped,
        [&](const Header& h, std::uint64_t offset, const char*) {
          if (h.type != kRecordFrame || h.sequence <= highest) return false;
          highest = h.sequence;
          while (range < acked.size() && acked[range].second < h.sequence) ++range;
          if (range < acked.size() && acked[range].first <= h.sequence) return true;
          entries_.push_back({h.sequence, id, offset, static_cast<std::uint32_t>(h.frameBytes())});
          ++segment.live;
          segment.liveBytes += h.frameBytes();
          return true;
        });
    ::close(fd);
  }
  lastSequence_ = std::max(lastSequence_, highest);
  if (!rewriteAckLog()) return fail("cannot write its acknowledgement log", errno);
  tidy();
  makeRoom(0);
  return true;
}

}  // namespace

std::unique_ptr<Spool> openFileSpool(const std::string& path, const FileSpoolOptions& options,
                                     std::string* error) {
  auto spool = std::make_unique<FileSpool>(path, options);
  if (!spool->open(error)) return nullptr;
  return spool;
}

}  // namespace delivery
}  // namespace telvo
