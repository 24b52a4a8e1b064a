// The programs the tests start (the tool, the example hosts) are built for
// the same machine as the tests. In a cross build that is not this machine:
// they run under the emulator the build names (TELVO_TEST_LAUNCHER, its
// words separated by '|'), as the tests themselves do.
#pragma once

#include <string>
#include <vector>

#ifndef TELVO_TEST_LAUNCHER
#define TELVO_TEST_LAUNCHER ""
#endif

namespace telvo::test {

// True when the tests run under an emulator (timing is slower there).
inline bool underEmulator() { return TELVO_TEST_LAUNCHER[0] != '\0'; }

// How many times longer a bound on elapsed time is under the emulator
// (qemu runs this code several times slower than the machine would, and
// more when the machine is busy).
inline double timeScale() { return underEmulator() ? 10.0 : 1.0; }

// The command line that starts `program`: the emulator's words, then it.
inline std::vector<std::string> launchCommand(const std::string& program) {
  std::vector<std::string> words;
  const std::string launcher = TELVO_TEST_LAUNCHER;
  std::string::size_type start = 0;
  while (start < launcher.size()) {
    const auto end = launcher.find('|', start);
    words.push_back(launcher.substr(start, end == std::string::npos ? std::string::npos : end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  words.push_back(program);
  return words;
}

// The same, as single-quoted words for a shell.
inline std::string launchShellCommand(const std::string& program) {
  std::string line;
  for (const auto& word : launchCommand(program)) {
    if (!line.empty()) line += ' ';
    line += '\'' + word + '\'';
  }
  return line;
}

}  // namespace telvo::test
