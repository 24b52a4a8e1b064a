#include "collector/json_scan.h"

#include <charconv>
#include <cmath>
#include <vector>

namespace telvo::tool {
namespace {

bool isWhiteSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The four hexadecimal digits at `at`, or -1.
long hex4(std::string_view text, std::size_t at) {
  if (at + 4 > text.size()) return -1;
  long value = 0;
  for (std::size_t k = 0; k < 4; ++k) {
    const int digit = hexValue(text[at + k]);
    if (digit < 0) return -1;
    value = value * 16 + digit;
  }
  return value;
}

std::string failure(std::size_t at, const std::string& what) {
  return "json: " + what + " (at byte " + std::to_string(at) + ")";
}

// Checks the string beginning at `at` (a '"'); its end, or 0 with `*error` set.
std::size_t checkString(std::string_view text, std::size_t at, std::string* error) {
  std::size_t i = at + 1;
  const std::size_t n = text.size();
  while (i < n) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == '"') return i + 1;
    if (c < 0x20) {
      *error = failure(i, "a control character stands unescaped in a string");
      return 0;
    }
    if (c != '\\') {
      ++i;
      continue;
    }
    if (i + 1 >= n) break;
    const char e = text[i + 1];
    if (e == '"' || e == '\\' || e == '/' || e == 'b' || e == 'f' || e == 'n' || e == 'r' ||
        e == 't') {
      i += 2;
      continue;
    }
    if (e != 'u') {
      *error = failure(i, "a string holds an unknown escape");
      return 0;
    }
    const long code = hex4(text, i + 2);
    if (code < 0) {
      *error = failure(i, "a \\u escape lacks its four hexadecimal digits");
      return 0;
    }
    i += 6;
    if (code >= 0xDC00 && code <= 0xDFFF) {
      *error = failure(i - 6, "a \\u escape is a low surrogate without a high one");
      return 0;
    }
    if (code >= 0xD800 && code <= 0xDBFF) {
      const long low = i + 1 < n && text[i] == '\\' && text[i + 1] == 'u' ? hex4(text, i + 2) : -1;
      if (low < 0xDC00 || low > 0xDFFF) {
        *error = failure(i - 6, "a \\u escape is a high surrogate without a low one");
        return 0;
      }
      i += 6;
    }
  }
  *error = failure(at, "a string is not closed");
  return 0;
}

// Checks the literal or number beginning at `at`; its end, or 0 with
// `*error` set.
std::size_t checkScalar(std::string_view text, std::size_t at, std::string* error) {
  for (std::string_view literal : {"true", "false", "null"}) {
    if (text.compare(at, literal.size(), literal) == 0) return at + literal.size();
  }
  const std::size_t n = text.size();
  std::size_t i = at;
  if (i < n && text[i] == '-') ++i;
  if (i < n && text[i] == '0') {
    ++i;
  } else if (i < n && isDigit(text[i])) {
    while (i < n && isDigit(text[i])) ++i;
  } else {
    *error = failure(at, "no JSON value begins here");
    return 0;
  }
  if (i < n && text[i] == '.') {
    const std::size_t digits = ++i;
    while (i < n && isDigit(text[i])) ++i;
    if (i == digits) {
      *error = failure(at, "a number has no digits after its point");
      return 0;
    }
  }
  if (i < n && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    if (i < n && (text[i] == '+' || text[i] == '-')) ++i;
    const std::size_t digits = i;
    while (i < n && isDigit(text[i])) ++i;
    if (i == digits) {
      *error = failure(at, "a number has no digits in its exponent");
      return 0;
    }
  }
  return i;
}

void appendUtf8(std::string& out, unsigned long code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

}  // namespace

namespace json_scan_detail {

std::size_t skipWhiteSpace(std::string_view text, std::size_t at) {
  while (at < text.size() && isWhiteSpace(text[at])) ++at;
  return at;
}

std::size_t skipString(std::string_view text, std::size_t at) {
  std::size_t i = at + 1;
  while (i < text.size() && text[i] != '"') i += text[i] == '\\' ? 2 : 1;
  return i < text.size() ? i + 1 : text.size();
}

std::size_t skipValue(std::string_view text, std::size_t at) {
  const std::size_t n = text.size();
  if (at >= n) return n;
  const char first = text[at];
  if (first == '"') return skipString(text, at);
  if (first == '{' || first == '[') {
    std::size_t depth = 0;
    std::size_t i = at;
    while (i < n) {
      const char c = text[i];
      if (c == '"') {
        i = skipString(text, i);
        continue;
      }
      if (c == '{' || c == '[') {
        ++depth;
      } else if (c == '}' || c == ']') {
        if (--depth == 0) return i + 1;
      }
      ++i;
    }
    return n;
  }
  std::size_t i = at;
  while (i < n && !isWhiteSpace(text[i]) && text[i] != ',' && text[i] != ']' && text[i] != '}') {
    ++i;
  }
  return i;
}

}  // namespace json_scan_detail

using json_scan_detail::skipWhiteSpace;

std::string checkJson(std::string_view text, const JsonLimits& limits, JsonSpan* value) {
  struct Open {
    char closer;
    std::size_t members;
  };
  std::vector<Open> open;
  enum class Next { kValue, kName, kAfterValue };
  Next next = Next::kValue;
  const std::size_t n = text.size();
  // A UTF-8 byte-order mark before the value is skipped, as parsers do.
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  const bool marked = text.substr(0, kByteOrderMark.size()) == kByteOrderMark;
  std::size_t i = skipWhiteSpace(text, marked ? kByteOrderMark.size() : 0);
  const std::size_t begin = i;
  std::string error;
  for (;;) {
    switch (next) {
      case Next::kValue: {
        i = skipWhiteSpace(text, i);
        if (i >= n) return failure(i, "the text ends where a value should be");
        if (!open.empty() && ++open.back().members > limits.maxMembers) {
          return failure(i, "an array or object holds more than " +
                                std::to_string(limits.maxMembers) + " members");
        }
        const char c = text[i];
        if (c == '{' || c == '[') {
          if (open.size() >= limits.maxDepth) {
            return failure(i, "arrays and objects nest more than " +
                                  std::to_string(limits.maxDepth) + " deep");
          }
          open.push_back(Open{c == '{' ? '}' : ']', 0});
          i = skipWhiteSpace(text, i + 1);
          if (i < n && text[i] == open.back().closer) {
            ++i;
            open.pop_back();
            next = Next::kAfterValue;
          } else {
            next = c == '{' ? Next::kName : Next::kValue;
          }
          break;
        }
        i = c == '"' ? checkString(text, i, &error) : checkScalar(text, i, &error);
        if (i == 0) return error;
        next = Next::kAfterValue;
        break;
      }
      case Next::kName: {
        i = skipWhiteSpace(text, i);
        if (i >= n || text[i] != '"') return failure(i, "a member name should stand here");
        i = checkString(text, i, &error);
        if (i == 0) return error;
        i = skipWhiteSpace(text, i);
        if (i >= n || text[i] != ':') return failure(i, "':' should follow a member name");
        ++i;
        next = Next::kValue;
        break;
      }
      case Next::kAfterValue: {
        if (open.empty()) {
          if (skipWhiteSpace(text, i) != n) return failure(i, "more text follows the value");
          if (value) *value = JsonSpan{begin, i};
          return std::string();
        }
        i = skipWhiteSpace(text, i);
        if (i >= n) return failure(i, "the text ends inside an array or object");
        const char c = text[i];
        if (c == ',') {
          ++i;
          next = open.back().closer == '}' ? Next::kName : Next::kValue;
        } else if (c == open.back().closer) {
          ++i;
          open.pop_back();
        } else {
          return failure(i, std::string("',' or '") + open.back().closer + "' should stand here");
        }
        break;
      }
    }
  }
}

JsonKind kindOf(std::string_view text, JsonSpan span) {
  switch (span.begin < text.size() ? text[span.begin] : 'n') {
    case '{':
      return JsonKind::kObject;
    case '[':
      return JsonKind::kArray;
    case '"':
      return JsonKind::kString;
    case 't':
      return JsonKind::kTrue;
    case 'f':
      return JsonKind::kFalse;
    case 'n':
      return JsonKind::kNull;
    default:
      return JsonKind::kNumber;
  }
}

std::string decodeName(std::string_view written) {
  std::string out;
  out.reserve(written.size());
  const std::size_t n = written.size();
  for (std::size_t i = 0; i < n;) {
    const char c = written[i];
    if (c != '\\' || i + 1 >= n) {
      out += c;
      ++i;
      continue;
    }
    const char e = written[i + 1];
    i += 2;
    switch (e) {
      case 'b':
        out += '\b';
        break;
      case 'f':
        out += '\f';
        break;
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case 't':
        out += '\t';
        break;
      case 'u': {
        long code = hex4(written, i);
        if (code < 0) return out;  // not checked text
        i += 4;
        if (code >= 0xD800 && code <= 0xDBFF && i + 1 < n && written[i] == '\\' &&
            written[i + 1] == 'u') {
          const long low = hex4(written, i + 2);
          if (low >= 0xDC00 && low <= 0xDFFF) {
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
            i += 6;
          }
        }
        appendUtf8(out, static_cast<unsigned long>(code));
        break;
      }
      default:  // '"', '\\', '/'
        out += e;
        break;
    }
  }
  return out;
}

std::string decodeString(std::string_view text, JsonSpan span) {
  if (span.size() < 2) return std::string();
  return decodeName(text.substr(span.begin + 1, span.size() - 2));
}

std::optional<std::int64_t> wholeMilliseconds(std::string_view text, JsonSpan span) {
  const std::string_view number = text.substr(span.begin, span.size());
  const char* first = number.data();
  const char* last = first + number.size();
  if (number.find_first_of(".eE") == std::string_view::npos) {
    std::int64_t value = 0;
    auto [end, status] = std::from_chars(first, last, value);
    if (status != std::errc() || end != last) return std::nullopt;
    return value;
  }
  double value = 0;
  auto [end, status] = std::from_chars(first, last, value);
  if (status != std::errc() || end != last) return std::nullopt;
  if (!std::isfinite(value) || std::fabs(value) > 9.0e18) return std::nullopt;
  return std::llround(value);
}

}  // namespace telvo::tool
