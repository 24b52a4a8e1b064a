// The library's JSON writer against nlohmann::json's dump (compact, invalid
// UTF-8 replaced): values built from the input (strings of any bytes,
// doubles of any bit pattern, integers, binary values, nesting) write the
// same text both ways (but a member whose name repairs to one before it is
// written once), and strings written by the capture's fast path too.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "encoding/json_text.h"
#include "telvo/types.h"

namespace {

using telvo::Json;

class Reader {
 public:
  Reader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  bool done() const { return at_ >= size_; }
  std::uint8_t byte() { return done() ? 0 : data_[at_++]; }
  std::string bytes() {
    const std::size_t n = std::min<std::size_t>(byte() % 16, size_ - std::min(at_, size_));
    std::string out(reinterpret_cast<const char*>(data_ + at_), n);
    at_ += n;
    return out;
  }
  template <typename T>
  T number() {
    T value{};
    unsigned char raw[sizeof(T)] = {};
    for (auto& b : raw) b = byte();
    std::memcpy(&value, raw, sizeof(T));
    return value;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

Json build(Reader& in, int depth) {
  switch (in.byte() % (depth < 12 ? 9 : 7)) {
    case 0:
      return Json(nullptr);
    case 1:
      return Json(in.byte() % 2 == 0);
    case 2:
      return Json(in.number<std::int64_t>());
    case 3:
      return Json(in.number<std::uint64_t>());
    case 4:
      return Json(in.number<double>());
    case 5:
      return Json(in.bytes());
    case 6: {
      const std::string raw = in.bytes();
      Json::binary_t binary(std::vector<std::uint8_t>(raw.begin(), raw.end()));
      if (in.byte() % 2) binary.set_subtype(in.byte());
      return Json(std::move(binary));
    }
    case 7: {
      Json array = Json::array();
      for (int n = in.byte() % 5; n > 0 && !in.done(); --n) array.push_back(build(in, depth + 1));
      return array;
    }
    default: {
      Json object = Json::object();
      for (int n = in.byte() % 5; n > 0 && !in.done(); --n) {
        std::string key = in.bytes();
        object[std::move(key)] = build(in, depth + 1);
      }
      return object;
    }
  }
}

// The value without the members whose names, once ill-formed UTF-8 is
// replaced, read as a name before them in the object: the writer leaves
// them out, so that no text repeats a member name.
Json firstOfEachName(const Json& value) {
  if (value.is_array()) {
    Json out = Json::array();
    for (const Json& element : value) out.push_back(firstOfEachName(element));
    return out;
  }
  if (!value.is_object()) return value;
  Json out = Json::object();
  std::set<std::string> names;
  for (const auto& [name, member] : value.items()) {
    const std::string written = Json(name).dump(-1, ' ', false, Json::error_handler_t::replace);
    if (names.insert(written).second) out[name] = firstOfEachName(member);
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Reader in(data, size);
  const Json value = build(in, 0);
  const std::string expected =
      firstOfEachName(value).dump(-1, ' ', false, Json::error_handler_t::replace);
  if (telvo::encoding::dumpJson(value) != expected) std::abort();
  if (value.is_string()) {
    std::string out;
    telvo::encoding::appendJsonString(out, value.get_ref<const std::string&>());
    if (out != expected) std::abort();
  }
  return 0;
}
