#include "encoding/json_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "encoding/utf8.h"

namespace telvo {
namespace encoding {

std::vector<std::size_t> sortedOrder(const std::vector<std::string_view>& names) {
  std::vector<std::size_t> order(names.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(), [&names](std::size_t a, std::size_t b) {
    return names[a] < names[b] || (names[a] == names[b] && a < b);
  });
  return order;
}

std::vector<bool> repeatsOnceRepaired(const std::vector<std::string_view>& names) {
  std::vector<std::string> written(names.size());
  std::vector<std::string_view> views(names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    written[i] = utf8::sanitized(names[i]);
    views[i] = written[i];
  }
  const std::vector<std::size_t> order = sortedOrder(views);
  std::vector<bool> repeated(names.size(), false);
  for (std::size_t k = 1; k < order.size(); ++k) {
    if (views[order[k]] == views[order[k - 1]]) repeated[order[k]] = true;
  }
  return repeated;
}

bool withinJsonDepth(std::string_view text, std::size_t maxDepth) {
  std::size_t depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;  // the escaped character, whatever it is
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    switch (c) {
      case '"':
        inString = true;
        break;
      case '[':
      case '{':
        if (++depth > maxDepth) return false;
        break;
      case ']':
      case '}':
        if (depth > 0) --depth;
        break;
      default:
        break;
    }
  }
  return true;
}

namespace {

// Builds the document from the parser's events, as Json::parse does, but
// without its callback variant: the one handler the library parses with.
class DocumentBuilder {
 public:
  DocumentBuilder(Json& root, std::string* error) : root_(root), error_(error) {}

  bool null() { return put(Json(nullptr)); }
  bool boolean(bool value) { return put(Json(value)); }
  bool number_integer(Json::number_integer_t value) { return put(Json(value)); }
  bool number_unsigned(Json::number_unsigned_t value) { return put(Json(value)); }
  bool number_float(Json::number_float_t value, const Json::string_t&) { return put(Json(value)); }
  bool string(Json::string_t& value) { return put(Json(std::move(value))); }
  bool binary(Json::binary_t& value) { return put(Json::binary(std::move(value))); }
  bool start_object(std::size_t) {
    open_.push_back(place(Json(Json::value_t::object)));
    return true;
  }
  bool key(Json::string_t& name) {
    member_ = &(*open_.back()->get_ptr<Json::object_t*>())[std::move(name)];
    return true;
  }
  bool end_object() {
    open_.pop_back();
    return true;
  }
  bool start_array(std::size_t) {
    open_.push_back(place(Json(Json::value_t::array)));
    return true;
  }
  bool end_array() {
    open_.pop_back();
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const Json::exception& failure) {
    if (error_) *error_ = failure.what();
    return false;
  }

 private:
  bool put(Json&& value) {
    place(std::move(value));
    return true;
  }
  // Where the next value goes: the root, the open array's end, or the
  // member whose key came last.
  Json* place(Json&& value) {
    if (open_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    if (auto* array = open_.back()->get_ptr<Json::array_t*>()) {
      array->push_back(std::move(value));
      return &array->back();
    }
    *member_ = std::move(value);
    return member_;
  }

  Json& root_;
  std::string* error_;
  std::vector<Json*> open_;  // the arrays and objects not closed yet
  Json* member_ = nullptr;
};

}  // namespace

Json parseJson(std::string_view text, std::string* error) {
  if (!withinJsonDepth(text)) {
    if (error) {
      *error =
          "the text nests arrays and objects more than " + std::to_string(kMaxJsonDepth) + " deep";
    }
    return Json(Json::value_t::discarded);
  }
  try {
    Json document;
    DocumentBuilder builder(document, error);
    if (Json::sax_parse(text.data(), text.data() + text.size(), &builder)) return document;
  } catch (const std::exception& e) {  // out of memory
    if (error) *error = e.what();
  }
  return Json(Json::value_t::discarded);
}

namespace {

// The body of a string literal for valid UTF-8: quotes, backslashes and
// control characters escaped as Json::dump escapes them (short forms where
// JSON has them, a six-character escape in lowercase hex otherwise), every other byte as it is.
void appendEscaped(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::size_t kept = 0;  // start of the bytes not written yet
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x20 && byte != '"' && byte != '\\') continue;
    out.append(text.data() + kept, i - kept);
    kept = i + 1;
    switch (byte) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\r':
        out += "\\r";
        break;
      default: {
        const char escape[] = {'\\', 'u', '0', '0', kHex[byte >> 4], kHex[byte & 15]};
        out.append(escape, sizeof escape);
      }
    }
  }
  out.append(text.data() + kept, text.size() - kept);
}

// A string literal whatever the bytes: ill-formed UTF-8 becomes U+FFFD, one
// for each maximal ill-formed part, as Json::dump's replacing handler does.
void appendAnyString(std::string& out, std::string_view text) {
  out += '"';
  if (utf8::isValid(text)) {
    appendEscaped(out, text);
  } else {
    appendEscaped(out, utf8::sanitized(text));
  }
  out += '"';
}

// Appends the members of `object` as ",name:value" (no comma before the
// first unless `comma`), names through `writeName`, values through
// `writeValue`, skipping a member named `skip`. Names that differ only in
// ill-formed UTF-8 read the same once it is repaired: of those, only the
// first (the object orders names by their bytes) is written, so that no
// text repeats a member name.
template <typename WriteName, typename WriteValue>
bool appendMembers(std::string& out, const Json& object, bool comma,
                   std::optional<std::string_view> skip, WriteName&& writeName,
                   WriteValue&& writeValue) {
  const auto& members = object.get_ref<const Json::object_t&>();
  // Names are short and almost always ASCII: one look at their bytes
  // settles it before any UTF-8 check.
  std::vector<bool> repeated;
  for (const auto& [name, member] : members) {
    unsigned char high = 0;
    for (const char c : name) high |= static_cast<unsigned char>(c);
    if ((high & 0x80) != 0 && !utf8::isValid(name)) {
      std::vector<std::string_view> names;
      names.reserve(members.size());
      for (const auto& each : members) names.emplace_back(each.first);
      repeated = repeatsOnceRepaired(names);
      break;
    }
  }
  std::size_t i = 0;
  for (const auto& [name, member] : members) {
    if (!repeated.empty() && repeated[i++]) continue;
    if (skip && name == *skip) continue;
    if (comma) out += ',';
    comma = true;
    writeName(out, name);
    out += ':';
    if (!writeValue(out, member)) return false;
  }
  return true;
}

bool appendValue(std::string& out, const Json& value) { return appendJson(out, value); }

// Json::dump(-1) with the replacing handler, byte for byte, written here so
// that the library carries one JSON writer and not the serializer as well
// (but a name that repairs to one written before is left out, as above).
void appendDumped(std::string& out, const Json& value) {
  char digits[64];
  switch (value.type()) {
    case Json::value_t::object:
      out += '{';
      appendMembers(out, value, false, std::nullopt, appendAnyString,
                    [](std::string& text, const Json& member) {
                      appendDumped(text, member);
                      return true;
                    });
      out += '}';
      return;
    case Json::value_t::array: {
      out += '[';
      bool first = true;
      for (const auto& element : value) {
        if (!first) out += ',';
        first = false;
        appendDumped(out, element);
      }
      out += ']';
      return;
    }
    case Json::value_t::string:
      appendAnyString(out, value.get_ref<const std::string&>());
      return;
    case Json::value_t::binary: {
      const auto& binary = value.get_binary();
      out += "{\"bytes\":[";
      for (std::size_t i = 0; i < binary.size(); ++i) {
        if (i > 0) out += ',';
        out.append(digits, std::to_chars(digits, digits + sizeof digits, binary[i]).ptr);
      }
      out += "],\"subtype\":";
      if (binary.has_subtype()) {
        out.append(digits, std::to_chars(digits, digits + sizeof digits, binary.subtype()).ptr);
        out += '}';
      } else {
        out += "null}";
      }
      return;
    }
    case Json::value_t::boolean:
      out += value.get<bool>() ? "true" : "false";
      return;
    case Json::value_t::number_integer:
      out.append(digits,
                 std::to_chars(digits, digits + sizeof digits, value.get<std::int64_t>()).ptr);
      return;
    case Json::value_t::number_unsigned:
      out.append(digits,
                 std::to_chars(digits, digits + sizeof digits, value.get<std::uint64_t>()).ptr);
      return;
    case Json::value_t::number_float: {
      const double number = value.get<double>();
      if (!std::isfinite(number)) {
        out += "null";
        return;
      }
      // The JSON library's own digits and layout ("1.0", "1e+20").
      out.append(digits, nlohmann::detail::to_chars(digits, digits + sizeof digits, number));
      return;
    }
    case Json::value_t::discarded:
      out += "<discarded>";
      return;
    case Json::value_t::null:
    default:
      out += "null";
      return;
  }
}

}  // namespace

std::string dumpJson(const Json& value) {
  std::string out;
  appendDumped(out, value);
  return out;
}

std::string textOrNull(const std::optional<std::string>& value) {
  return value ? *value : std::string("(null)");
}

std::string describeJson(const Json* value) {
  if (!value) return "(null)";
  if (value->is_null()) return "<null>";
  if (value->is_string()) return value->get<std::string>();
  return dumpJson(*value);
}

std::string textOrNull(const std::optional<std::string>& value, bool holdsNull) {
  return holdsNull ? std::string("<null>") : textOrNull(value);
}

std::string jsonOrNull(const std::optional<Json>& value) {
  return value ? dumpJson(*value) : std::string("(null)");
}

bool truthFromText(std::string_view text) {
  auto isWhiteSpace = [](char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
  };
  std::size_t i = 0;
  while (i < text.size() && isWhiteSpace(text[i])) ++i;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  while (i < text.size() && text[i] == '0') ++i;
  if (i == text.size()) return false;
  const char c = text[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

bool truthValue(const Json& value) {
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number()) return value.get<double>() != 0;
  if (value.is_string()) return truthFromText(value.get_ref<const std::string&>());
  return false;
}

double numberValue(const Json& value) {
  if (value.is_number()) return value.get<double>();
  if (value.is_string()) return std::strtod(value.get_ref<const std::string&>().c_str(), nullptr);
  return 0;
}

bool writesAsIs(std::string_view text) {
  // Eight bytes at a time: a control byte, '"' or '\\' anywhere in a word
  // sets that byte's high bit in `escaped` (the usual "has a byte less than
  // n / equal to c" word tricks, exact for these values); then the tail.
  constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
  constexpr std::uint64_t kHighs = 0x8080808080808080ULL;
  auto hasZero = [](std::uint64_t v) { return (v - kOnes) & ~v & kHighs; };
  std::uint64_t escaped = 0, high = 0;
  std::size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    std::uint64_t word;
    std::memcpy(&word, text.data() + i, 8);
    high |= word;
    escaped |= ((word - kOnes * 0x20) & ~word & kHighs) | hasZero(word ^ (kOnes * '"')) |
               hasZero(word ^ (kOnes * '\\'));
  }
  for (; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    escaped |= byte < 0x20 || byte == '"' || byte == '\\';
    high |= byte;
  }
  if (escaped) return false;
  return (high & kHighs) == 0 || utf8::isValid(text);
}

void appendJsonString(std::string& out, std::string_view text) {
  // Text without escapes in valid UTF-8 is by far the common case; anything
  // else goes through the JSON writer, which escapes and repairs UTF-8.
  if (!writesAsIs(text)) {
    appendAnyString(out, text);
    return;
  }
  out += '"';
  out += text;
  out += '"';
}

bool appendJson(std::string& out, const Json& value) {
  char digits[32];
  switch (value.type()) {
    case Json::value_t::object:
      out += '{';
      if (!appendMembers(out, value, false, std::nullopt, appendJsonString, appendValue))
        return false;
      out += '}';
      return true;
    case Json::value_t::array: {
      out += '[';
      bool first = true;
      for (const auto& element : value) {
        if (!first) out += ',';
        first = false;
        if (!appendJson(out, element)) return false;
      }
      out += ']';
      return true;
    }
    case Json::value_t::string:
      appendJsonString(out, value.get_ref<const std::string&>());
      return true;
    case Json::value_t::number_integer: {
      auto end = std::to_chars(digits, digits + sizeof digits, value.get<std::int64_t>()).ptr;
      out.append(digits, end);
      return true;
    }
    case Json::value_t::number_unsigned: {
      auto end = std::to_chars(digits, digits + sizeof digits, value.get<std::uint64_t>()).ptr;
      out.append(digits, end);
      return true;
    }
    case Json::value_t::number_float: {
      const double number = value.get<double>();
      if (!std::isfinite(number)) return false;
      // Shortest text that reads back as the same double.
      auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
      out.append(digits, end);
      return true;
    }
    case Json::value_t::boolean:
      out += value.get<bool>() ? "true" : "false";
      return true;
    default:  // null, and binary values, which JSON text cannot hold
      out += "null";
      return true;
  }
}

bool appendEventData(std::string& out, const Json& data, std::int64_t timestamp) {
  char digits[32];
  out += "{\"timestamp\":";
  out.append(digits, std::to_chars(digits, digits + sizeof digits, timestamp).ptr);
  if (!appendMembers(out, data, true, "timestamp", appendJsonString, appendValue)) return false;
  out += '}';
  return true;
}

}  // namespace encoding
}  // namespace telvo
