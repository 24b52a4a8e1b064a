// Collects log lines while it lives, then restores standard error.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "telvo/log.h"

namespace telvo {

class CapturedLog {
 public:
  CapturedLog() {
    setLogSink([this](const std::string& line) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(line);
    });
  }
  ~CapturedLog() { setLogSink(nullptr); }
  std::vector<std::string> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  bool contains(const std::string& line) const {
    for (const auto& l : lines()) {
      if (l == line) return true;
    }
    return false;
  }
  // Lines that hold `part` anywhere.
  std::size_t count(const std::string& part) const {
    std::size_t n = 0;
    for (const auto& l : lines()) n += l.find(part) != std::string::npos;
    return n;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace telvo
