#include "common/input.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace telvo::tool {

std::optional<std::string> readInput(const std::string& file, std::string& error) {
  std::FILE* in = file == "-" ? stdin : std::fopen(file.c_str(), "rb");
  if (in == nullptr) {
    error = std::strerror(errno);
    return std::nullopt;
  }
  std::string text;
  char buffer[64 * 1024];
  std::size_t got;
  bool tooLarge = false;
  while ((got = std::fread(buffer, 1, sizeof buffer, in)) > 0) {
    if (text.size() + got > kMaxInputBytes) {
      tooLarge = true;
      break;
    }
    text.append(buffer, got);
  }
  const bool failed = std::ferror(in) != 0;
  const int readErrno = errno;
  if (in != stdin) std::fclose(in);
  if (failed) {
    error = std::strerror(readErrno);
    return std::nullopt;
  }
  if (tooLarge) {
    error = "larger than " + std::to_string(kMaxInputBytes) + " bytes";
    return std::nullopt;
  }
  return text;
}

}  // namespace telvo::tool
