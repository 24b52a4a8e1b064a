// The spool: events and error reports not yet delivered, kept on disk so that
// they survive a failed network, a restart, a crash or a power cut. Storage
// only, as the transport is I/O only: the client decides what goes in, what it
// reads back and when a record is done with.
//
// Thread safety: every member function may be called from any thread.
//
// Durability (on storage that honours fsync):
// - Once append() has returned true, its records are on disk and are read
//   back after any crash, power cut or reopen until acknowledged, unless the
//   size bound dropped them (counted in droppedOldest).
// - Once acknowledge() has returned true, those records never come back. A
//   crash during the acknowledge call itself may leave any of them waiting.
// - A crash during append() may keep any of that call's records, whole; a
//   crash during the call that dropped records for the bound may bring them
//   back. A record is either returned whole, as appended, or not at all: a
//   torn or corrupt one is skipped and counted in corruptSkipped.
// - A sequence append() returned is never given again by the same folder,
//   across reopens and crashes.
// A call that returns false (a write failed) keeps nothing in this process;
// its effect after a crash is as if it had been interrupted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace telvo {
namespace delivery {

// One event or error report waiting on disk. The spool does not read
// `session` or `body`; it keeps them byte for byte.
struct SpooledRecord {
  std::uint64_t sequence = 0;  // given by append: increasing, never reused in one spool
  std::uint8_t kind = 0;       // the client's (0 event, 1 error report); kept as given
  std::string session;  // the session it was captured in, as the client writes it ("" for none yet)
  std::string body;     // the client's bytes
};

class Spool {
 public:
  struct Counts {
    std::uint64_t records = 0;         // waiting now
    std::uint64_t bytes = 0;           // on disk now
    std::uint64_t droppedOldest = 0;   // records the size bound pushed out, since open
    std::uint64_t corruptSkipped = 0;  // torn or corrupt records skipped, since open
    std::uint64_t refused = 0;         // records append refused as too large, since open
    std::uint64_t discardedFiles = 0;  // segment files beyond the bound at open, removed unread
  };
  virtual ~Spool() = default;
  // Adds the records (their `sequence` set on return) and returns once they
  // are written and on stable storage (fsync). When the spool would exceed its
  // bound, the oldest records are dropped first (counted). False when the
  // write failed (disk full, I/O error): nothing of this call is kept then.
  virtual bool append(std::vector<SpooledRecord>& records) = 0;
  // In sequence order, the records waiting with a sequence above `after`, at
  // most `maxRecords` of them and about `maxBytes` (at least one if any waits).
  virtual std::vector<SpooledRecord> read(std::uint64_t after, std::size_t maxRecords,
                                          std::size_t maxBytes) = 0;
  // Forgets these records (delivered, or given up on); unknown ones are ignored.
  // Durable like append.
  virtual bool acknowledge(const std::vector<std::uint64_t>& sequences) = 0;
  virtual Counts counts() const = 0;
};

// The file spool keeps its records in segment files, append-only logs named
// after their number; acknowledgements go to a log of their own. Bytes on disk
// are the sizes of its files (segments, acknowledgement log, lock file). When
// an append would pass maxBytes, the space acknowledged records hold is taken
// back first (a segment at most half alive is rewritten with its live records
// only); then whole segments are dropped, oldest first, so one drop removes at
// most about segmentBytes of the oldest records. While a segment is rewritten,
// its live part is on disk twice for a moment.
//
// Memory: about 32 bytes per waiting record, plus what read() returns and
// buffers of 64 KiB or one record.
struct FileSpoolOptions {
  std::size_t maxBytes = 16u << 20;  // the bound on disk, records and bookkeeping (at least 4 KiB)
  std::size_t maxRecordBytes =
      4u << 20;  // a larger record is refused by append (false), and one read from disk is corrupt
  // A segment takes appends until it holds this many bytes (one call's records
  // always share a segment), so this is also how much the bound drops at once.
  // Kept between 1 KiB and maxBytes / 4.
  std::size_t segmentBytes = 1u << 20;
  // Segment files at most; a new one past it drops the oldest like the size
  // bound. At open, the folder's first 16 times this many entries are listed.
  std::size_t maxSegmentFiles = 256;
};

// Opens (creating it and its folder, 0700, files 0600) the spool at `path`
// (a folder). Only one process may have a path open: a second open (in this
// or another process) fails with a clear message in `*error` naming the path
// and, where known, the process holding it. Null on failure.
//
// A record's session and body together may not exceed maxRecordBytes, 1 GiB,
// nor maxBytes less 1 KiB for bookkeeping. Files in the folder with other
// names are left alone and not counted. A process forked while the spool is
// open shares its lock until it exits or execs.
std::unique_ptr<Spool> openFileSpool(const std::string& path, const FileSpoolOptions& options,
                                     std::string* error);

}  // namespace delivery
}  // namespace telvo
