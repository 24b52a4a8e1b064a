#include "core/json_text.h"

#include <cctype>
#include <cmath>
#include <cstdlib>

namespace telvo {
namespace core {

std::string dumpJson(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string textOrNull(const std::optional<std::string>& value) {
  return value ? *value : std::string("(null)");
}

std::string jsonOrNull(const std::optional<Json>& value) {
  return value ? dumpJson(*value) : std::string("(null)");
}

bool truthValue(const Json& value) {
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number()) return value.get<double>() != 0;
  if (!value.is_string()) return false;
  const std::string& text = value.get_ref<const std::string&>();
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  while (i < text.size() && text[i] == '0') ++i;
  if (i == text.size()) return false;
  const char c = text[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

double numberValue(const Json& value) {
  if (value.is_number()) return value.get<double>();
  if (value.is_string()) return std::strtod(value.get_ref<const std::string&>().c_str(), nullptr);
  return 0;
}

bool holdsNonFiniteNumber(const Json& value) {
  switch (value.type()) {
    case Json::value_t::number_float:
      return !std::isfinite(value.get<double>());
    case Json::value_t::object:
    case Json::value_t::array:
      for (const auto& element : value) {
        if (holdsNonFiniteNumber(element)) return true;
      }
      return false;
    default:
      return false;
  }
}

void appendJsonString(std::string& out, const std::string& text) {
  // Plain printable ASCII is by far the common case for event names; anything
  // else goes through the JSON writer, which escapes and repairs UTF-8.
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7f || c == '"' || c == '\\') {
      out += dumpJson(Json(text));
      return;
    }
  }
  out += '"';
  out += text;
  out += '"';
}

}  // namespace core
}  // namespace telvo
