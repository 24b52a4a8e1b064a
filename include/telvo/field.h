// Field: one member of event data or error details, given without building a
// Json tree.
//
//   client->sendEvent("play", {{"title", "Intro"}, {"position", 12},
//                              {"live", false}, {"bitrate", 4.5}});
//
// A field is a key and a value: text, an integer, a floating-point number, a
// boolean, null, an already-built Json (for nesting) or RawJson (JSON text,
// checked when the event is taken). The client writes the fields straight
// into the compact JSON text it queues, on the caller's thread, during the
// call; it keeps nothing of the field afterwards.
//
// Lifetime. A field views its key, its text and its Json: they must outlive
// the call it is passed to, and no longer. Temporaries in a braced list at
// the call do; a field list kept in a container must not view temporaries.
//
// Nesting with braces ({"k", {{"a", 1}}}) does not compile: name the Json
// (telvo::Json{{"a", 1}}) or use RawJson.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "telvo/types.h"

namespace telvo {

// JSON text given as a field's value: any JSON value, checked (syntax, UTF-8,
// at most 128 arrays and objects deep) and written compactly.
struct RawJson {
  explicit constexpr RawJson(std::string_view json) : text(json) {}
  std::string_view text;
};

class Field {
 public:
  enum class Kind : std::uint8_t { kText, kInteger, kUnsigned, kDouble, kBool, kNull, kJson, kRaw };

  Field(std::string_view key, std::string_view text) : _key(key), _kind(Kind::kText), _text(text) {}
  // A null pointer is written as null.
  Field(std::string_view key, const char* text)
      : _key(key),
        _kind(text ? Kind::kText : Kind::kNull),
        _text(text ? text : std::string_view()) {}
  Field(std::string_view key, const std::string& text) : Field(key, std::string_view(text)) {}
  // Booleans, integers (char counts as one, as it does for Json) and
  // floating-point numbers, by their exact type: nothing else converts to
  // bool or to a number here.
  template <typename T, std::enable_if_t<std::is_arithmetic_v<T>, int> = 0>
  Field(std::string_view key, T value) : _key(key), _integer(0) {
    if constexpr (std::is_same_v<T, bool>) {
      _kind = Kind::kBool;
      _bool = value;
    } else if constexpr (std::is_floating_point_v<T>) {
      _kind = Kind::kDouble;
      _double = static_cast<double>(value);
    } else if constexpr (std::is_signed_v<T>) {
      _kind = Kind::kInteger;
      _integer = static_cast<std::int64_t>(value);
    } else {
      _kind = Kind::kUnsigned;
      _unsigned = static_cast<std::uint64_t>(value);
    }
  }
  Field(std::string_view key, std::nullptr_t) : _key(key), _kind(Kind::kNull), _integer(0) {}
  // Written as the Json path writes it.
  Field(std::string_view key, const Json& value) : _key(key), _kind(Kind::kJson), _json(&value) {}
  Field(std::string_view key, RawJson raw) : _key(key), _kind(Kind::kRaw), _text(raw.text) {}

  std::string_view key() const { return _key; }
  Kind kind() const { return _kind; }
  // The value for the matching kind (text() for kText and kRaw).
  std::string_view text() const { return _text; }
  std::int64_t integer() const { return _integer; }
  std::uint64_t unsignedInteger() const { return _unsigned; }
  double number() const { return _double; }
  bool boolean() const { return _bool; }
  const Json& json() const { return *_json; }

 private:
  std::string_view _key;
  Kind _kind = Kind::kNull;
  union {
    std::string_view _text;
    std::int64_t _integer;
    std::uint64_t _unsigned;
    double _double;
    bool _bool;
    const Json* _json;
  };
};

}  // namespace telvo
