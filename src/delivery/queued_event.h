// QueuedEvent: one captured event as the queue keeps it until the flush, kept
// compact: a queued event costs its text, one allocation and a record of at
// most 72 bytes (on 64-bit machines).
// A plain value; not synchronised.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "telvo/types.h"

namespace telvo {
namespace delivery {

class QueuedEvent {
 public:
  // What one queued event costs beyond its name and data, as the queue's
  // bound counts it.
  static constexpr std::size_t kOverheadBytes = 64;

  // `dataIsCompactJson`: the client wrote `data` itself as one compact JSON
  // object, fit to splice into the batch as it stands. Nothing when the name
  // is too long to record (4 GiB or more).
  static std::optional<QueuedEvent> make(std::string_view name, std::string_view data,
                                         bool dataIsCompactJson, double timestamp,
                                         std::shared_ptr<const Json> session);

  std::string_view name() const { return std::string_view(_text).substr(0, _nameLength); }
  std::string_view data() const { return std::string_view(_text).substr(_nameLength); }
  bool dataIsCompactJson() const { return _dataIsCompactJson; }
  // Service-clock milliseconds; the flush orders events by it.
  double timestamp() const { return _timestamp; }
  // The session id at capture, shared by the events of one session.
  const std::shared_ptr<const Json>& session() const { return _session; }
  // Where it waits on disk too (the spool's sequence), 0 when it does not.
  std::uint64_t spoolSequence() const { return _spoolSequence; }
  void setSpoolSequence(std::uint64_t sequence) { _spoolSequence = sequence; }
  // Its name and data with kOverheadBytes.
  std::size_t bytes() const { return _text.size() + kOverheadBytes; }

 private:
  std::string _text;  // the name, then the data, in one allocation
  std::uint32_t _nameLength = 0;
  bool _dataIsCompactJson = false;
  double _timestamp = 0;
  std::shared_ptr<const Json> _session;
  std::uint64_t _spoolSequence = 0;
};

}  // namespace delivery
}  // namespace telvo
