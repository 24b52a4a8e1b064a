// The file spool on real files in a temporary folder: order and sequences
// across reopens, acknowledgements, the size bound, the lock, damaged and
// hostile files, and processes killed at random moments.
#include "delivery/spool.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace telvo {
namespace delivery {
namespace {

namespace fs = std::filesystem;

class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (fs::temp_directory_path() / "telvo-spool-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempFolder() { fs::remove_all(path_); }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::unique_ptr<Spool> open(const std::string& path, FileSpoolOptions options = {}) {
  std::string error;
  auto spool = openFileSpool(path, options, &error);
  EXPECT_TRUE(spool) << error;
  return spool;
}

SpooledRecord record(std::string body, std::string session = "s1", std::uint8_t kind = 0) {
  SpooledRecord r;
  r.kind = kind;
  r.session = std::move(session);
  r.body = std::move(body);
  return r;
}

std::vector<SpooledRecord> readAll(Spool& spool) {
  std::vector<SpooledRecord> all;
  for (std::uint64_t after = 0;;) {
    auto some = spool.read(after, 7, 1 << 20);
    if (some.empty()) return all;
    after = some.back().sequence;
    all.insert(all.end(), some.begin(), some.end());
  }
}

std::string describe(const std::vector<SpooledRecord>& records) {
  std::string text;
  for (const auto& r : records) {
    text += std::to_string(r.sequence) + ":" + std::to_string(r.kind) + ":" + r.session + ":" +
            r.body + " ";
  }
  return text;
}

std::vector<std::uint64_t> sequencesOf(const std::vector<SpooledRecord>& records) {
  std::vector<std::uint64_t> sequences;
  for (const auto& r : records) sequences.push_back(r.sequence);
  return sequences;
}

std::string contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void write(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::vector<std::string> segments(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    if (entry.path().extension() == ".seg") names.push_back(entry.path().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::uint64_t folderBytes(const std::string& folder) {
  std::uint64_t bytes = 0;
  for (const auto& entry : fs::directory_iterator(folder)) bytes += entry.file_size();
  return bytes;
}

TEST(FileSpool, KeepsRecordsByteForByteInOrderAcrossReopen) {
  TempFolder folder;
  const std::string path = folder / "deep/spool";
  std::string binary("a\0b\xFFTS1\xFF", 8);
  std::vector<SpooledRecord> first = {record("{\"e\":1}", ""), record(binary, "s\0x", 1),
                                      record(std::string(100000, 'x'), "s2")};
  std::vector<SpooledRecord> second = {record("four"), record("five")};
  std::vector<SpooledRecord> appended;
  {
    auto spool = open(path);
    ASSERT_TRUE(spool);
    std::vector<SpooledRecord> none;
    EXPECT_TRUE(spool->append(none));
    ASSERT_TRUE(spool->append(first));
    ASSERT_TRUE(spool->append(second));
    appended = first;
    appended.insert(appended.end(), second.begin(), second.end());
    for (std::size_t i = 0; i < appended.size(); ++i) {
      EXPECT_GT(appended[i].sequence, i == 0 ? 0 : appended[i - 1].sequence);
    }
    EXPECT_EQ(describe(readAll(*spool)), describe(appended));

    // After a sequence, at most maxRecords, about maxBytes but at least one.
    EXPECT_EQ(sequencesOf(spool->read(appended[1].sequence, 2, 1 << 20)),
              (std::vector<std::uint64_t>{appended[2].sequence, appended[3].sequence}));
    EXPECT_EQ(spool->read(0, 10, 1).size(), 1u);
    EXPECT_EQ(spool->read(appended[1].sequence, 10, 10).size(), 1u);  // the large one alone
    EXPECT_EQ(spool->read(appended[2].sequence, 10, 12).size(), 2u);  // "s1four", "s1five"
    EXPECT_EQ(spool->read(appended[2].sequence, 10, 11).size(), 1u);
    EXPECT_TRUE(spool->read(appended.back().sequence, 10, 1 << 20).empty());
    EXPECT_TRUE(spool->read(0, 0, 1 << 20).empty());
    EXPECT_TRUE(spool->read(UINT64_MAX, 10, 1 << 20).empty());
    EXPECT_EQ(spool->counts().records, 5u);
  }
  EXPECT_EQ(fs::status(path).permissions() & fs::perms::all, fs::perms::owner_all);
  for (const auto& name : segments(path)) {
    EXPECT_EQ(fs::status(name).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
  }

  auto spool = open(path);
  ASSERT_TRUE(spool);
  EXPECT_EQ(describe(readAll(*spool)), describe(appended));
  std::vector<SpooledRecord> third = {record("six")};
  ASSERT_TRUE(spool->append(third));
  EXPECT_GT(third[0].sequence, appended.back().sequence);
  EXPECT_EQ(readAll(*spool).size(), 6u);
}

TEST(FileSpool, AcknowledgedRecordsStayGoneAcrossReopenAndSequencesGoOnRising) {
  TempFolder folder;
  const std::string path = folder / "spool";
  std::vector<SpooledRecord> records;
  for (int i = 0; i < 10; ++i) records.push_back(record("r" + std::to_string(i)));
  std::vector<SpooledRecord> kept;
  {
    auto spool = open(path);
    ASSERT_TRUE(spool->append(records));
    EXPECT_TRUE(spool->acknowledge({records[1].sequence, records[4].sequence, records[4].sequence,
                                    records[9].sequence + 1000}));
    EXPECT_TRUE(spool->acknowledge({}));
    kept = readAll(*spool);
    EXPECT_EQ(kept.size(), 8u);
  }
  {
    auto spool = open(path);
    EXPECT_EQ(describe(readAll(*spool)), describe(kept));
    EXPECT_TRUE(spool->acknowledge(sequencesOf(kept)));
    EXPECT_EQ(spool->counts().records, 0u);
    EXPECT_LT(spool->counts().bytes, 256u);  // no segment left, a short log
    EXPECT_TRUE(segments(path).empty());
  }
  auto spool = open(path);
  EXPECT_TRUE(readAll(*spool).empty());
  std::vector<SpooledRecord> more = {record("after")};
  ASSERT_TRUE(spool->append(more));
  EXPECT_GT(more[0].sequence, records.back().sequence);
}

TEST(FileSpool, TheSizeBoundDropsTheOldestAndCountsThem) {
  TempFolder folder;
  const std::string path = folder / "spool";
  FileSpoolOptions options;
  options.maxBytes = 64 << 10;
  options.segmentBytes = 8 << 10;
  std::vector<std::uint64_t> appended;
  {
    auto spool = open(path, options);
    for (int i = 0; i < 400; ++i) {
      std::vector<SpooledRecord> one = {record(std::string(500, 'a' + i % 26))};
      ASSERT_TRUE(spool->append(one));
      appended.push_back(one[0].sequence);
      ASSERT_LE(spool->counts().bytes, options.maxBytes);
      ASSERT_LE(folderBytes(path), options.maxBytes);
    }
    const auto counts = spool->counts();
    EXPECT_GT(counts.droppedOldest, 0u);
    EXPECT_EQ(counts.records + counts.droppedOldest, 400u);
    // What waits is the newest, in order.
    const auto waiting = sequencesOf(readAll(*spool));
    ASSERT_EQ(waiting.size(), counts.records);
    EXPECT_TRUE(std::equal(waiting.begin(), waiting.end(), appended.end() - waiting.size()));
    EXPECT_GT(waiting.size(), 80u);  // drops come a segment at a time, not all at once
  }
  auto spool = open(path, options);
  EXPECT_EQ(spool->counts().records, readAll(*spool).size());
  EXPECT_LE(folderBytes(path), options.maxBytes);

  // A lower bound at open drops what no longer fits, oldest first.
  spool.reset();
  options.maxBytes = 16 << 10;
  spool = open(path, options);
  EXPECT_LE(folderBytes(path), options.maxBytes);
  const auto waiting = sequencesOf(readAll(*spool));
  ASSERT_FALSE(waiting.empty());
  EXPECT_EQ(waiting.back(), appended.back());
}

TEST(FileSpool, AcknowledgedSpaceIsTakenBackBeforeAnythingIsDropped) {
  TempFolder folder;
  FileSpoolOptions options;
  options.maxBytes = 64 << 10;
  options.segmentBytes = 8 << 10;
  auto spool = open(folder / "spool", options);
  std::vector<std::uint64_t> stuck;
  for (int round = 0; round < 4; ++round) {  // 80 records a round: the bound holds 120
    std::vector<std::uint64_t> delivered;
    for (int i = 0; i < 80; ++i) {
      std::vector<SpooledRecord> one = {record(std::string(500, 'x'))};
      ASSERT_TRUE(spool->append(one));
      (i % 10 == 0 ? stuck : delivered).push_back(one[0].sequence);
    }
    ASSERT_TRUE(spool->acknowledge(delivered));
  }
  const auto counts = spool->counts();
  EXPECT_EQ(counts.droppedOldest, 0u);
  EXPECT_EQ(sequencesOf(readAll(*spool)), stuck);
  EXPECT_LE(counts.bytes, options.maxBytes);
}

TEST(FileSpool, RefusesWhatIsLargerThanItsBounds) {
  TempFolder folder;
  FileSpoolOptions options;
  options.maxBytes = 8 << 10;
  options.maxRecordBytes = 1000;
  auto spool = open(folder / "spool", options);
  std::vector<SpooledRecord> batch = {record("small"), record(std::string(999, 'x'))};
  EXPECT_FALSE(spool->append(batch));
  EXPECT_EQ(batch[0].sequence, 0u);
  batch = {record(std::string(998, 'x'))};  // session "s1" makes 1000
  EXPECT_TRUE(spool->append(batch));
  std::vector<SpooledRecord> whole(9, record(std::string(900, 'y')));  // more than the bound
  EXPECT_FALSE(spool->append(whole));
  const auto counts = spool->counts();
  EXPECT_EQ(counts.refused, 11u);
  EXPECT_EQ(counts.records, 1u);
  EXPECT_EQ(counts.droppedOldest, 0u);

  std::string error;
  options.maxBytes = 100;
  EXPECT_FALSE(openFileSpool(folder / "other", options, &error));
  EXPECT_NE(error.find("maxBytes"), std::string::npos) << error;
}

TEST(FileSpool, OnlyOneOpenAtATimeInThisProcessOrAnother) {
  TempFolder folder;
  const std::string path = folder / "spool";
  const std::string pid = std::to_string(::getpid());
  auto first = open(path);
  std::string error;
  EXPECT_FALSE(openFileSpool(path, {}, &error));
  EXPECT_NE(error.find(path), std::string::npos) << error;
  EXPECT_NE(error.find(pid), std::string::npos) << error;

  // A child process is refused too, and told who holds it.
  int pipe[2];
  ASSERT_EQ(::pipe(pipe), 0);
  pid_t child = ::fork();
  if (child == 0) {
    std::string childError;
    auto spool = openFileSpool(path, {}, &childError);
    (void)!::write(pipe[1], childError.data(), childError.size());
    ::_exit(spool ? 1 : 0);
  }
  ::close(pipe[1]);
  char text[512] = {};
  (void)!::read(pipe[0], text, sizeof text - 1);
  ::close(pipe[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_NE(std::string(text).find("process " + pid), std::string::npos) << text;
  EXPECT_NE(std::string(text).find(path), std::string::npos) << text;

  first.reset();
  EXPECT_TRUE(open(path));

  // A holder killed outright does not block the next start.
  ASSERT_EQ(::pipe(pipe), 0);
  child = ::fork();
  if (child == 0) {
    auto spool = openFileSpool(path, {}, nullptr);
    (void)!::write(pipe[1], spool ? "y" : "n", 1);
    ::pause();
    ::_exit(0);
  }
  ::close(pipe[1]);
  char opened = 0;
  (void)!::read(pipe[0], &opened, 1);
  ::close(pipe[0]);
  EXPECT_EQ(opened, 'y');
  EXPECT_FALSE(openFileSpool(path, {}, &error));
  ::kill(child, SIGKILL);
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(open(path));
}

// The folder's files but the lock, to start damaged copies from.
std::map<std::string, std::string> snapshot(const std::string& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (name != "lock") files[name] = contents(entry.path().string());
  }
  return files;
}

void restore(const std::map<std::string, std::string>& files, const std::string& folder) {
  fs::remove_all(folder);
  fs::create_directories(folder);
  for (const auto& [name, text] : files) write(folder + "/" + name, text);
}

TEST(FileSpool, TornTailsAndFlippedBytesAreSkippedCountedAndNeverReturned) {
  TempFolder folder;
  const std::string path = folder / "spool";
  std::vector<SpooledRecord> records = {record("one"), record("two, a little longer"),
                                        record("three")};
  {
    auto spool = open(path);
    for (auto& r : records) {
      std::vector<SpooledRecord> one = {r};
      ASSERT_TRUE(spool->append(one));
      r.sequence = one[0].sequence;
    }
  }
  const auto files = snapshot(path);
  ASSERT_EQ(segments(path).size(), 1u);
  const std::string segmentName = fs::path(segments(path)[0]).filename().string();
  const std::string segment = files.at(segmentName);
  const std::size_t lastFrame = 28 + 2 + records[2].body.size();
  const std::size_t middleFrame = 28 + 2 + records[1].body.size();
  const std::size_t middleStart = segment.size() - lastFrame - middleFrame;
  ASSERT_GT(segment.size(), lastFrame + middleFrame);

  const std::string copy = folder / "copy";
  for (std::size_t cut = segment.size() - lastFrame; cut < segment.size(); ++cut) {
    auto damaged = files;
    damaged[segmentName] = segment.substr(0, cut);
    restore(damaged, copy);
    auto spool = open(copy);
    EXPECT_EQ(describe(readAll(*spool)), describe({records[0], records[1]})) << cut;
    EXPECT_EQ(spool->counts().corruptSkipped, cut > segment.size() - lastFrame ? 1u : 0u) << cut;
    std::vector<SpooledRecord> later = {record("later")};
    ASSERT_TRUE(spool->append(later));
    EXPECT_GT(later[0].sequence, records[1].sequence);
    spool.reset();
    spool = open(copy);
    EXPECT_EQ(readAll(*spool).size(), 3u) << cut;
  }

  for (std::size_t at = middleStart; at < middleStart + middleFrame; ++at) {
    auto damaged = files;
    damaged[segmentName][at] ^= 0x40;
    restore(damaged, copy);
    auto spool = open(copy);
    EXPECT_EQ(describe(readAll(*spool)), describe({records[0], records[2]})) << at;
    EXPECT_EQ(spool->counts().corruptSkipped, 1u) << at;
  }

  // Damage done while open is found when the record is read.
  restore(files, copy);
  auto spool = open(copy);
  {
    std::fstream file(copy + "/" + segmentName, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(middleStart + middleFrame - 3));
    file.put('#');
  }
  EXPECT_EQ(describe(readAll(*spool)), describe({records[0], records[2]}));
  EXPECT_EQ(spool->counts().corruptSkipped, 1u);
  EXPECT_EQ(spool->counts().records, 2u);
}

// A frame as the spool lays it out (see file_spool.cc), to build hostile files
// that pass its checksum.
std::string frame(std::uint8_t type, std::uint64_t sequence, const std::string& session,
                  const std::string& body) {
  std::string f("\xFFTS1\0\0\0\0", 8);
  auto put = [&f](std::uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) f += static_cast<char>(value >> (8 * i));
  };
  put(type, 1);
  put(0, 3);
  put(session.size(), 4);
  put(body.size(), 4);
  put(sequence, 8);
  f += session + body;
  const uLong crc =
      crc32(0, reinterpret_cast<const Bytef*>(f.data() + 8), static_cast<uInt>(f.size() - 8));
  for (int i = 0; i < 4; ++i) f[4 + i] = static_cast<char>(crc >> (8 * i));
  return f;
}

TEST(FileSpool, HostileFilesDoNotCrashOrAllocateHugely) {
  TempFolder folder;
  const std::string good = frame(1, 1, "s1", "good");
  const std::string name = "0000000000000001.seg";
  std::string huge = frame(1, 2, "", "");
  huge.replace(12, 8, std::string(8, '\xFF'));  // session and body of 4 GiB each
  std::string range(16, '\0');
  range[0] = 1;
  range[8] = static_cast<char>(0xE8), range[9] = 3;  // 1 to 1000
  std::string garbage;
  std::mt19937 random(7);
  for (int i = 0; i < 200000; ++i)
    garbage += static_cast<char>(random() % 7 == 0 ? 0xFF : random());
  for (int i = 0; i < 1000; ++i)
    garbage.insert(random() % garbage.size(), good.substr(0, 28 + random() % 8));

  struct Case {
    const char* what;
    std::map<std::string, std::string> files;
    std::size_t waiting;
  };
  const std::vector<Case> cases = {
      {"a good record", {{name, good}}, 1},
      {"empty files", {{name, ""}, {"acks.log", ""}, {"lock", ""}}, 0},
      {"lengths of 4 GiB", {{name, huge + good}}, 1},
      {"sequence 2^63", {{name, frame(1, std::uint64_t{1} << 63, "s1", "bad") + good}}, 1},
      {"sequences out of order", {{name, frame(1, 5, "s1", "good") + good}}, 1},
      {"an acknowledgement among records", {{name, frame(2, 9, "", range) + good}}, 1},
      {"a record among acknowledgements", {{name, good}, {"acks.log", good}}, 1},
      {"garbage", {{name, garbage + good}, {"acks.log", garbage}, {"lock", garbage}}, 1},
      {"acknowledged, and sequences reserved up to 2^61",
       {{name, good}, {"acks.log", frame(2, std::uint64_t{1} << 61, "", range)}},
       0},
      {"foreign names", {{name, good}, {"ffffffffffffffff.seg", good}, {"x.seg", good}}, 1},
  };
  for (const auto& c : cases) {
    const std::string path = folder / "hostile";
    restore(c.files, path);
    auto spool = open(path);
    ASSERT_TRUE(spool) << c.what;
    auto all = readAll(*spool);
    EXPECT_EQ(all.size(), c.waiting) << c.what;
    for (const auto& r : all) EXPECT_EQ(r.body, "good") << c.what;
    std::vector<SpooledRecord> more = {record("more")};
    EXPECT_TRUE(spool->append(more)) << c.what;
    EXPECT_EQ(readAll(*spool).size(), c.waiting + 1) << c.what;
    EXPECT_TRUE(spool->acknowledge(sequencesOf(readAll(*spool)))) << c.what;
  }

  // Files far larger than the bound are not read: a segment is removed
  // unread, a log read no further than the bound.
  const std::string path = folder / "huge";
  restore({{name, good}, {"acks.log", good}}, path);
  fs::resize_file(path + "/" + name, std::uint64_t{1} << 32);
  fs::resize_file(path + "/acks.log", std::uint64_t{1} << 32);
  auto spool = open(path);
  EXPECT_TRUE(readAll(*spool).empty());
  EXPECT_EQ(spool->counts().discardedFiles, 1u);
  EXPECT_LT(folderBytes(path), 1024u);
}

TEST(FileSpool, ConcurrentCallersShareOneConsistentSpool) {
  TempFolder folder;
  auto spool = open(folder / "spool");
  std::vector<std::vector<std::uint64_t>> appended(2);
  std::vector<std::uint64_t> acknowledged;
  std::atomic<int> writers{2};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 60; ++i) {
        std::vector<SpooledRecord> two = {record("a"), record("b")};
        if (spool->append(two)) {
          for (const auto& r : two) appended[t].push_back(r.sequence);
        }
      }
      --writers;
    });
  }
  threads.emplace_back([&] {
    while (writers > 0) {
      auto some = spool->read(0, 5, 1 << 20);
      if (some.size() > 2) some.resize(2);
      if (spool->acknowledge(sequencesOf(some))) {
        for (const auto& r : some) acknowledged.push_back(r.sequence);
      }
      (void)spool->counts();
    }
  });
  for (auto& thread : threads) thread.join();
  std::set<std::uint64_t> all(appended[0].begin(), appended[0].end());
  all.insert(appended[1].begin(), appended[1].end());
  EXPECT_EQ(all.size(), 240u);  // none given twice
  for (auto sequence : acknowledged) all.erase(sequence);
  const auto waiting = sequencesOf(readAll(*spool));
  EXPECT_EQ(std::vector<std::uint64_t>(all.begin(), all.end()), waiting);
  EXPECT_EQ(spool->counts().records, waiting.size());
}

// The crash test. A child appends numbered records and acknowledges some of
// what it reads, telling the parent through a pipe, line by line:
//   B c...      about to append the records numbered c...
//   A c s ...   that append returned: record c has sequence s
//   K s...      about to acknowledge these sequences
//   k           that acknowledge returned
// The parent kills it at a random moment, reopens and checks.
SpooledRecord numbered(std::uint64_t number) {
  return record("n" + std::to_string(number) + ":" + std::string(number % 300, 'a' + number % 26),
                number % 5 == 0 ? "" : "s" + std::to_string(number % 5),
                static_cast<std::uint8_t>(number % 2));
}

std::uint64_t numberOf(const SpooledRecord& r) {
  const auto colon = r.body.find(':');
  if (r.body.size() < 2 || r.body[0] != 'n' || colon == std::string::npos) return 0;
  const std::uint64_t number = std::stoull(r.body.substr(1, colon - 1));
  const auto expected = numbered(number);
  return expected.body == r.body && expected.session == r.session && expected.kind == r.kind
             ? number
             : 0;
}

[[noreturn]] void runChild(const std::string& path, const FileSpoolOptions& options,
                           unsigned acknowledgePercent, int out, std::uint64_t firstNumber,
                           unsigned seed) {
  auto say = [out](const std::string& line) { (void)!::write(out, line.data(), line.size()); };
  std::string error;
  auto spool = openFileSpool(path, options, &error);
  if (!spool) {
    say("E " + error + "\n");
    ::_exit(2);
  }
  std::mt19937 random(seed);
  for (std::uint64_t number = firstNumber;;) {
    if (random() % 100 >= acknowledgePercent) {
      std::vector<SpooledRecord> batch;
      std::string line = "B";
      for (unsigned i = 0, n = 1 + random() % 4; i < n; ++i, ++number) {
        batch.push_back(numbered(number));
        line += " " + std::to_string(number);
      }
      say(line + "\n");
      if (!spool->append(batch)) continue;
      line = "A";
      for (const auto& r : batch)
        line += " " + std::to_string(numberOf(r)) + " " + std::to_string(r.sequence);
      say(line + "\n");
    } else {
      auto waiting = spool->read(0, 12, 1 << 20);
      std::string line = "K";
      std::vector<std::uint64_t> chosen;
      for (const auto& r : waiting) {
        if (random() % 3 != 0) {
          chosen.push_back(r.sequence);
          line += " " + std::to_string(r.sequence);
        }
      }
      say(line + "\n");
      if (spool->acknowledge(chosen)) say("k\n");
    }
  }
}

void crashRounds(const FileSpoolOptions& options, unsigned acknowledgePercent, bool dropsAllowed) {
  TempFolder folder;
  const std::string path = folder / "spool";
  std::mt19937 random(20240611);
  std::map<std::uint64_t, std::uint64_t> waiting;  // sequence -> number: must be there
  std::set<std::uint64_t> acknowledged;            // must never come back
  std::uint64_t highestSeen = 0;
  for (int round = 0; round < 10; ++round) {
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      ::close(pipe[0]);
      runChild(path, options, acknowledgePercent, pipe[1], 1 + round * 1000000ull, random());
    }
    ::close(pipe[1]);
    std::this_thread::sleep_for(std::chrono::milliseconds(20 + random() % 230));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    std::string said;
    char buffer[4096];
    for (ssize_t n; (n = ::read(pipe[0], buffer, sizeof buffer)) > 0;) said.append(buffer, n);
    ::close(pipe[0]);

    std::set<std::uint64_t> maybeAppended;   // numbers
    std::set<std::uint64_t> maybeForgotten;  // sequences
    std::istringstream lines(said);
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      std::string tag;
      words >> tag;
      ASSERT_NE(tag, "E") << line;
      std::uint64_t number = 0, sequence = 0;
      if (tag == "B") {
        while (words >> number) maybeAppended.insert(number);
      } else if (tag == "A") {
        while (words >> number >> sequence) {
          EXPECT_GT(sequence, highestSeen) << "a sequence given twice";
          highestSeen = sequence;
          waiting[sequence] = number;
          maybeAppended.erase(number);
        }
      } else if (tag == "K") {
        while (words >> sequence) maybeForgotten.insert(sequence);
      } else if (tag == "k") {
        for (auto s : maybeForgotten) {
          acknowledged.insert(s);
          waiting.erase(s);
        }
        maybeForgotten.clear();
      }
    }

    auto spool = open(path, options);
    ASSERT_TRUE(spool);
    const auto found = readAll(*spool);
    std::map<std::uint64_t, std::uint64_t> now;
    for (const auto& r : found) {
      const std::uint64_t number = numberOf(r);
      ASSERT_NE(number, 0u) << "a damaged record was returned: " << r.body.substr(0, 40);
      EXPECT_EQ(acknowledged.count(r.sequence), 0u)
          << "acknowledged " << r.sequence << " came back";
      const auto expected = waiting.find(r.sequence);
      if (expected != waiting.end()) {
        EXPECT_EQ(expected->second, number) << r.sequence;
      } else {
        EXPECT_TRUE(maybeForgotten.count(r.sequence) || maybeAppended.count(number))
            << "record " << r.sequence << " appeared from nowhere";
      }
      now[r.sequence] = number;
      highestSeen = std::max(highestSeen, r.sequence);
    }
    for (const auto& [sequence, number] : waiting) {
      if (now.count(sequence) || maybeForgotten.count(sequence)) continue;
      // Only the bound may take a returned record, and only the oldest.
      EXPECT_TRUE(dropsAllowed && (now.empty() || sequence < now.begin()->first))
          << "record " << sequence << " (" << number << ") was lost in round " << round;
    }
    if (!dropsAllowed) {
      EXPECT_EQ(spool->counts().droppedOldest, 0u);
    }
    EXPECT_LE(spool->counts().bytes, options.maxBytes);
    waiting = now;
  }
}

TEST(FileSpool, KilledAtAnyMomentItLosesNothingReturnedAndForgetsNothingAcknowledged) {
  FileSpoolOptions options;
  options.maxBytes = 4 << 20;
  options.segmentBytes = 4 << 10;
  crashRounds(options, 20, false);
}

TEST(FileSpool, KilledWhileTheBoundDropsAndRewritesItLosesOnlyTheOldest) {
  FileSpoolOptions options;
  options.maxBytes = 32 << 10;
  options.segmentBytes = 4 << 10;
  crashRounds(options, 10, true);
}

}  // namespace
}  // namespace delivery
}  // namespace telvo
