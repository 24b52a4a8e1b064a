#include "encoding/field_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "encoding/json_text.h"
#include "encoding/utf8.h"

namespace telvo {
namespace encoding {

namespace {

// Lists up to this long find repeated keys by comparing each key with those
// before it; longer ones sort, so that a hostile list costs n log n.
constexpr std::size_t kQuadraticLimit = 16;

// For each field, whether another field's key writes the same name and wins
// over it. Keys compare as written, ill-formed UTF-8 repaired (when
// `repairs`, some key has such bytes). Of keys that are the same bytes the
// first given wins; of keys that differ only in ill-formed bytes, the one
// whose bytes sort first, as a Json object built from the same list holds
// them first, so that both forms of an event write the same members.
std::vector<bool> repeatedKeys(const Field* fields, std::size_t count, bool repairs) {
  std::vector<std::string_view> keys(count);
  for (std::size_t i = 0; i < count; ++i) keys[i] = fields[i].key();
  const std::vector<std::size_t> order = sortedOrder(keys);
  std::vector<bool> repeated(count, false);
  if (repairs) {
    std::vector<std::string_view> sorted(count);
    for (std::size_t k = 0; k < count; ++k) sorted[k] = keys[order[k]];
    const std::vector<bool> again = repeatsOnceRepaired(sorted);
    for (std::size_t k = 0; k < count; ++k) repeated[order[k]] = again[k];
    return repeated;
  }
  for (std::size_t k = 1; k < count; ++k) {
    if (keys[order[k]] == keys[order[k - 1]]) repeated[order[k]] = true;
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

// Keys and text up to these lengths that need no escaping are copied as
// they stand, all fields into one stretch of the output sized once.
constexpr std::size_t kShortKey = 64;
constexpr std::size_t kShortText = 96;

// memcpy for the short pieces a member is made of, in fixed-size moves the
// compiler inlines: a call per piece would cost more than the copy.
inline char* copyShort(char* p, const char* text, std::size_t n) {
  if (n >= 8) {
    std::size_t i = 0;
    for (; i + 8 <= n; i += 8) std::memcpy(p + i, text + i, 8);
    std::memcpy(p + n - 8, text + n - 8, 8);
  } else if (n >= 4) {
    std::memcpy(p, text, 4);
    std::memcpy(p + n - 4, text + n - 4, 4);
  } else {
    for (std::size_t i = 0; i < n; ++i) p[i] = text[i];
  }
  return p + n;
}

// The most bytes `,"key":value` takes when the field goes in as it stands,
// or 0 when it takes the general path (escapes, nesting, a double written as
// the error report's writer has it).
std::size_t shortBound(const Field& field, NonFinite nonFinite) {
  const std::string_view key = field.key();
  if (key.size() > kShortKey || !writesAsIs(key)) return 0;
  std::size_t value = 0;
  switch (field.kind()) {
    case Field::Kind::kText:
      if (field.text().size() > kShortText || !writesAsIs(field.text())) return 0;
      value = field.text().size() + 2;
      break;
    case Field::Kind::kDouble:
      if (nonFinite == NonFinite::kNull || !std::isfinite(field.number())) return 0;
      value = 32;
      break;
    case Field::Kind::kInteger:
    case Field::Kind::kUnsigned:
      value = 24;
      break;
    case Field::Kind::kBool:
    case Field::Kind::kNull:
      value = 5;
      break;
    default:
      return 0;
  }
  return key.size() + 4 + value;
}

// Writes `,"key":value` for a field shortBound accepted, at `p` (with room
// for 32 more bytes than it writes); returns the end.
char* writeShort(char* p, const Field& field) {
  const std::string_view key = field.key();
  *p++ = ',';
  *p++ = '"';
  p = copyShort(p, key.data(), key.size());
  *p++ = '"';
  *p++ = ':';
  switch (field.kind()) {
    case Field::Kind::kText:
      *p++ = '"';
      p = copyShort(p, field.text().data(), field.text().size());
      *p++ = '"';
      break;
    case Field::Kind::kInteger:
      p = std::to_chars(p, p + 32, field.integer()).ptr;
      break;
    case Field::Kind::kUnsigned:
      p = std::to_chars(p, p + 32, field.unsignedInteger()).ptr;
      break;
    case Field::Kind::kDouble:
      p = std::to_chars(p, p + 32, field.number()).ptr;
      break;
    case Field::Kind::kBool:
      std::memcpy(p, field.boolean() ? "true" : "false", field.boolean() ? 4 : 5);
      p += field.boolean() ? 4 : 5;
      break;
    default:
      std::memcpy(p, "null", 4);
      p += 4;
      break;
  }
  return p;
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
  bool listed = count > kQuadraticLimit;
  if (listed) repeated = repeatedKeys(fields, count, false);
  auto dropped = [&](std::size_t i) {
    const Field& field = fields[i];
    if (skip && field.key() == *skip) return true;
    if (listed) return static_cast<bool>(repeated[i]);
    for (std::size_t j = 0; j < i; ++j) {
      if (fields[j].key() == field.key()) return true;
    }
    return false;
  };

  // The common case: every field goes in as it stands, so the output grows
  // once and the members are copied straight into it.
  std::size_t bound = 32;
  for (std::size_t i = 0; i < count && bound != 0; ++i) {
    const std::size_t field = shortBound(fields[i], nonFinite);
    bound = field == 0 ? 0 : bound + field;
  }
  if (bound != 0) {
    const std::size_t start = out.size();
    out.resize(start + bound);
    char* p = out.data() + start;
    for (std::size_t i = 0; i < count; ++i) {
      if (!dropped(i)) p = writeShort(p, fields[i]);
    }
    out.resize(static_cast<std::size_t>(p - out.data()));
    return true;
  }

  // Every key of the common case above is well-formed UTF-8; here a key with
  // ill-formed bytes may write the same name as another key.
  if (std::any_of(fields, fields + count, [](const Field& f) { return !utf8::isValid(f.key()); })) {
    repeated = repeatedKeys(fields, count, true);
    listed = true;
  }
  for (std::size_t i = 0; i < count; ++i) {
    const Field& field = fields[i];
    if (dropped(i)) {
      // A bad RawJson is the caller's mistake even where another field wins.
      if (field.kind() == Field::Kind::kRaw) parsedRaw(field);
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
