#include "encoding/field_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <vector>

#include "encoding/json_text.h"

namespace telvo {
namespace encoding {

namespace {

// Lists up to this long find repeated keys by comparing each key with those
// before it; longer ones sort, so that a hostile list costs n log n.
constexpr std::size_t kQuadraticLimit = 16;

// For each field, whether an earlier field has the same key.
std::vector<bool> repeatedKeys(const Field* fields, std::size_t count) {
  std::vector<std::size_t> order(count);
  for (std::size_t i = 0; i < count; ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [fields](std::size_t a, std::size_t b) {
    return fields[a].key() < fields[b].key();
  });
  std::vector<bool> repeated(count, false);
  for (std::size_t i = 1; i < count; ++i) {
    if (fields[order[i]].key() == fields[order[i - 1]].key()) repeated[order[i]] = true;
  }
  return repeated;
}

// A RawJson value parsed; throws UsageError when it is not JSON.
Json parsedRaw(const Field& field) {
  Json value = parseJson(field.text());
  if (value.is_discarded()) {
    throw UsageError("Telvo: field \"" + std::string(field.key()) +
                     "\" holds RawJson that is not JSON, or nests deeper than " +
                     std::to_string(kMaxJsonDepth));
  }
  return value;
}

// Keys and text up to these lengths that need no escaping are gathered with
// their member's punctuation on the stack and appended in one go.
constexpr std::size_t kShortKey = 64;
constexpr std::size_t kShortText = 96;

// `,"key":value` for a field whose key and value go in as they stand, into
// `buffer`; its length, or 0 when the field takes the general path.
std::size_t writeShort(char (&buffer)[192], const Field& field, NonFinite nonFinite) {
  const std::string_view key = field.key();
  if (key.size() > kShortKey || !writesAsIs(key)) return 0;
  char* p = buffer;
  *p++ = ',';
  *p++ = '"';
  std::memcpy(p, key.data(), key.size());
  p += key.size();
  *p++ = '"';
  *p++ = ':';
  char* const end = buffer + sizeof buffer;
  switch (field.kind()) {
    case Field::Kind::kText: {
      const std::string_view text = field.text();
      if (text.size() > kShortText || !writesAsIs(text)) return 0;
      *p++ = '"';
      std::memcpy(p, text.data(), text.size());
      p += text.size();
      *p++ = '"';
      break;
    }
    case Field::Kind::kInteger:
      p = std::to_chars(p, end, field.integer()).ptr;
      break;
    case Field::Kind::kUnsigned:
      p = std::to_chars(p, end, field.unsignedInteger()).ptr;
      break;
    case Field::Kind::kDouble:
      if (nonFinite == NonFinite::kNull || !std::isfinite(field.number())) return 0;
      p = std::to_chars(p, end, field.number()).ptr;
      break;
    case Field::Kind::kBool:
      std::memcpy(p, field.boolean() ? "true" : "false", field.boolean() ? 4 : 5);
      p += field.boolean() ? 4 : 5;
      break;
    case Field::Kind::kNull:
      std::memcpy(p, "null", 4);
      p += 4;
      break;
    default:
      return 0;
  }
  return static_cast<std::size_t>(p - buffer);
}

bool appendValue(std::string& out, const Field& field, NonFinite nonFinite) {
  char digits[32];
  switch (field.kind()) {
    case Field::Kind::kText:
      appendJsonString(out, field.text());
      return true;
    case Field::Kind::kInteger:
      out.append(digits, std::to_chars(digits, digits + sizeof digits, field.integer()).ptr);
      return true;
    case Field::Kind::kUnsigned:
      out.append(digits,
                 std::to_chars(digits, digits + sizeof digits, field.unsignedInteger()).ptr);
      return true;
    case Field::Kind::kDouble:
      if (nonFinite == NonFinite::kNull) {
        out += dumpJson(Json(field.number()));  // as the error report's writer has it
        return true;
      }
      if (!std::isfinite(field.number())) return false;
      // Shortest text that reads back as the same double, as appendJson.
      out.append(digits, std::to_chars(digits, digits + sizeof digits, field.number()).ptr);
      return true;
    case Field::Kind::kBool:
      out += field.boolean() ? "true" : "false";
      return true;
    case Field::Kind::kNull:
      out += "null";
      return true;
    case Field::Kind::kJson:
      if (nonFinite == NonFinite::kNull) {
        out += dumpJson(field.json());
        return true;
      }
      return appendJson(out, field.json());
    case Field::Kind::kRaw: {
      const Json value = parsedRaw(field);
      if (nonFinite == NonFinite::kNull) {
        out += dumpJson(value);
        return true;
      }
      return appendJson(out, value);
    }
  }
  return true;
}

}  // namespace

bool appendFields(std::string& out, const Field* fields, std::size_t count, NonFinite nonFinite,
                  std::optional<std::string_view> skip) {
  std::vector<bool> repeated;
  if (count > kQuadraticLimit) repeated = repeatedKeys(fields, count);
  char buffer[192];
  for (std::size_t i = 0; i < count; ++i) {
    const Field& field = fields[i];
    bool drop = skip && field.key() == *skip;
    if (!drop) {
      if (count > kQuadraticLimit) {
        drop = repeated[i];
      } else {
        for (std::size_t j = 0; j < i && !drop; ++j) drop = fields[j].key() == field.key();
      }
    }
    if (drop) {
      // A bad RawJson is the caller's mistake even where another field wins.
      if (field.kind() == Field::Kind::kRaw) parsedRaw(field);
      continue;
    }
    if (const std::size_t length = writeShort(buffer, field, nonFinite)) {
      out.append(buffer, length);
      continue;
    }
    out += ',';
    appendJsonString(out, field.key());
    out += ':';
    if (!appendValue(out, field, nonFinite)) return false;
  }
  return true;
}

}  // namespace encoding
}  // namespace telvo
