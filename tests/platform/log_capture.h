// Collects log lines for the duration of a test, then restores standard error.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "telvo/log.h"

namespace telvo {

class LogCapture {
 public:
  LogCapture() {
    setLogSink([this](const std::string& line) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(line);
    });
  }
  ~LogCapture() { setLogSink(nullptr); }

  std::vector<std::string> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace telvo
