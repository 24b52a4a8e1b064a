#include "telvo/log.h"

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <utility>

namespace telvo {
namespace {

// Deliberately leaked: a library thread may still log while static objects
// are being destroyed at process exit.
struct SinkHolder {
  std::mutex mutex;
  std::shared_ptr<const LogSink> sink;
};

SinkHolder& holder() {
  static SinkHolder* h = new SinkHolder;
  return *h;
}

// One write(2) per line so that lines from several threads never interleave
// mid-line (stderr is unbuffered, and iostreams would split the output).
void writeToStandardError(const std::string& line) {
  std::string out;
  out.reserve(line.size() + 1);
  out.append(line);
  out.push_back('\n');
  const char* p = out.data();
  std::size_t left = out.size();
  while (left > 0) {
    ssize_t n = ::write(STDERR_FILENO, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
}

}  // namespace

void setLogSink(LogSink sink) {
  std::shared_ptr<const LogSink> next;
  if (sink) next = std::make_shared<const LogSink>(std::move(sink));
  std::shared_ptr<const LogSink> previous;
  {
    std::lock_guard<std::mutex> lock(holder().mutex);
    previous = std::exchange(holder().sink, std::move(next));
  }
  // `previous` is released here, outside the lock: its captures may do anything.
}

void log(const std::string& line) {
  std::shared_ptr<const LogSink> sink;
  {
    std::lock_guard<std::mutex> lock(holder().mutex);
    sink = holder().sink;
  }
  if (!sink) {
    writeToStandardError(line);
    return;
  }
  // A throwing sink must not take a library thread down with it.
  try {
    (*sink)(line);
  } catch (...) {
    writeToStandardError(line);
  }
}

}  // namespace telvo
