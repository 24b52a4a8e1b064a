#include "collector/post_checker.h"

#include <cctype>
#include <cmath>
#include <set>
#include <utility>

#include "telvo/envelope.h"

namespace telvo::tool {
namespace {

std::string compact(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

const char* layerName(DecodedEnvelope::Failure failure) {
  switch (failure) {
    case DecodedEnvelope::Failure::kBase64:
      return "envelope is not Base64";
    case DecodedEnvelope::Failure::kZlib:
      return "envelope is not a zlib stream";
    case DecodedEnvelope::Failure::kUtf8:
      return "envelope is not UTF-8 text";
    case DecodedEnvelope::Failure::kPrefix:
      return "envelope has no \"telvoJson=\" prefix";
    case DecodedEnvelope::Failure::kJson:
      return "envelope is not JSON";
    case DecodedEnvelope::Failure::kNone:
      break;
  }
  return "envelope is valid";
}

// A whole number of milliseconds from a JSON number; nothing for anything
// else (and for numbers no 64-bit integer can hold).
std::optional<std::int64_t> milliseconds(const Json& value) {
  if (value.is_number_integer()) return value.get<std::int64_t>();
  if (value.is_number_unsigned()) {
    auto v = value.get<std::uint64_t>();
    if (v > static_cast<std::uint64_t>(INT64_MAX)) return std::nullopt;
    return static_cast<std::int64_t>(v);
  }
  if (value.is_number_float()) {
    double v = value.get<double>();
    if (!std::isfinite(v) || std::fabs(v) > 9.0e18) return std::nullopt;
    return std::llround(v);
  }
  return std::nullopt;
}

bool isUpperUuid(const std::string& text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (c != '-') return false;
    } else if (!(std::isdigit(static_cast<unsigned char>(c)) || (c >= 'A' && c <= 'F'))) {
      return false;
    }
  }
  return true;
}

// Collects problems with a common prefix ("batch: ", "hello: ").
class Problems {
 public:
  Problems(std::vector<std::string>* out, std::string prefix)
      : out_(out), prefix_(std::move(prefix)) {}
  void add(const std::string& text) { out_->push_back(prefix_ + text); }
  // Members of `object` other than `expected`.
  void unexpectedMembers(const Json& object, const std::set<std::string>& expected,
                         const std::string& where) {
    for (const auto& item : object.items()) {
      if (!expected.count(item.key())) add("unexpected member \"" + item.key() + "\"" + where);
    }
  }

 private:
  std::vector<std::string>* out_;
  std::string prefix_;
};

std::optional<std::string> textMember(const Json& object, const char* key, Problems& problems,
                                      bool required = true) {
  auto it = object.find(key);
  if (it == object.end()) {
    if (required) problems.add(std::string("missing member \"") + key + "\"");
    return std::nullopt;
  }
  if (!it->is_string()) {
    problems.add(std::string("member \"") + key + "\" is not text");
    return std::nullopt;
  }
  return it->get<std::string>();
}

// "sessionId" of a batch or error post: text naming a session handed out.
std::string sessionMember(const Json& document, Problems& problems,
                          const PostChecker::SessionLookup& knownSession) {
  auto it = document.find("sessionId");
  if (it == document.end()) {
    problems.add("missing member \"sessionId\"");
    return std::string();
  }
  if (!it->is_string()) {
    problems.add("member \"sessionId\" is not text: " + compact(*it));
    return compact(*it);
  }
  std::string id = it->get<std::string>();
  if (id.empty()) {
    problems.add("empty session id (sent before the hello was answered)");
  } else if (knownSession && !knownSession(id)) {
    problems.add("unknown session id \"" + id + "\"");
  }
  return id;
}

void checkHello(const Json& document, std::int64_t receivedMs, CheckedPost& out) {
  Problems problems(&out.problems, "hello: ");
  SessionRow& row = out.hello;
  row.receivedMs = receivedMs;
  row.helloJson = compact(document);
  row.property = textMember(document, "propertyName", problems);
  row.application = textMember(document, "applicationName", problems);
  row.applicationVersion = textMember(document, "applicationVersion", problems);
  row.platform = textMember(document, "platformName", problems);
  row.deviceType = textMember(document, "deviceType", problems);
  row.deviceVersion = textMember(document, "deviceVersion", problems);
  row.clientDeviceId = textMember(document, "clientDeviceId", problems);
  row.deviceModel = textMember(document, "deviceModel", problems);
  row.uuidToken = textMember(document, "telvoUUIDToken", problems, /*required=*/false);
  if (row.deviceType && *row.deviceType != "settop") {
    problems.add("\"deviceType\" is \"" + *row.deviceType + "\", not \"settop\"");
  }
  if (row.clientDeviceId && !isUpperUuid(*row.clientDeviceId)) {
    problems.add("\"clientDeviceId\" \"" + *row.clientDeviceId +
                 "\" is not an upper-case UUID (8-4-4-4-12)");
  }
  problems.unexpectedMembers(
      document,
      {"propertyName", "applicationName", "applicationVersion", "platformName", "deviceType",
       "deviceVersion", "clientDeviceId", "deviceModel", "telvoUUIDToken"},
      "");
}

void checkBatch(const Json& document, std::int64_t receivedMs,
                const PostChecker::SessionLookup& knownSession, CheckedPost& out) {
  Problems problems(&out.problems, "batch: ");
  std::string session = sessionMember(document, problems, knownSession);
  problems.unexpectedMembers(document, {"sessionId", "events"}, "");
  auto events = document.find("events");
  if (events == document.end()) {
    problems.add("missing member \"events\"");
    return;
  }
  if (!events->is_array()) {
    problems.add("member \"events\" is not an array");
    return;
  }
  if (events->empty()) problems.add("empty \"events\" array (the library never sends one)");
  for (std::size_t i = 0; i < events->size(); ++i) {
    const Json& element = (*events)[i];
    std::string where = " in events[" + std::to_string(i) + "]";
    if (!element.is_object()) {
      problems.add("events[" + std::to_string(i) + "] is not an object");
      continue;
    }
    problems.unexpectedMembers(element, {"eventType", "eventData"}, where);
    auto type = element.find("eventType");
    if (type == element.end() || !type->is_string()) {
      problems.add("events[" + std::to_string(i) + "] has no text \"eventType\"; not stored");
      continue;
    }
    EventRow row;
    row.sessionId = session;
    row.type = type->get<std::string>();
    row.receivedMs = receivedMs;
    auto data = element.find("eventData");
    if (data == element.end()) {
      problems.add("missing member \"eventData\"" + where);
      row.dataJson = "{}";
    } else {
      row.dataJson = compact(*data);
      if (!data->is_object()) {
        problems.add("\"eventData\"" + where + " is not an object");
      } else if (auto stamp = data->find("timestamp"); stamp != data->end()) {
        row.eventMs = milliseconds(*stamp);
        if (!row.eventMs) problems.add("\"timestamp\"" + where + " is not a number");
      }
    }
    out.events.push_back(std::move(row));
  }
}

void checkError(const Json& document, std::int64_t receivedMs,
                const PostChecker::SessionLookup& knownSession, CheckedPost& out) {
  Problems problems(&out.problems, "error: ");
  std::string session = sessionMember(document, problems, knownSession);
  problems.unexpectedMembers(document, {"sessionId", "data"}, "");
  auto data = document.find("data");
  if (data == document.end()) {
    problems.add("missing member \"data\"");
    return;
  }
  if (!data->is_object()) {
    problems.add("member \"data\" is not an object");
    return;
  }
  ErrorRow row;
  row.sessionId = session;
  row.receivedMs = receivedMs;
  row.dataJson = compact(*data);
  row.application = textMember(*data, "applicationName", problems);
  auto code = data->find("errorCode");
  if (code == data->end()) {
    problems.add("missing member \"errorCode\" in \"data\"");
    row.errorCodeJson = "null";
  } else {
    row.errorCodeJson = compact(*code);
  }
  auto stamp = data->find("timestamp");
  if (stamp == data->end()) {
    problems.add("missing member \"timestamp\" in \"data\"");
  } else {
    row.errorMs = milliseconds(*stamp);
    if (!row.errorMs) problems.add("\"timestamp\" in \"data\" is not a number");
  }
  out.error = std::move(row);
}

}  // namespace

const char* PostChecker::layerOf(const std::string& problem) {
  // Matches the texts check() writes (the kind's label comes first).
  if (problem.find(": Content-Type is ") != std::string::npos ||
      problem.find(": Content-Encoding is ") != std::string::npos) {
    return "labels";
  }
  if (problem.find(": envelope ") != std::string::npos) return "envelope";
  if (problem.find("session id") != std::string::npos &&
      problem.find("member \"sessionId\"") == std::string::npos) {
    return "session";
  }
  return "document";
}

CheckedPost PostChecker::check(PostKind kind, const PostHeaders& headers, std::string_view body,
                               std::int64_t receivedMs, const SessionLookup& knownSession,
                               std::size_t maxInflatedBytes) {
  CheckedPost out;
  const char* label = kind == PostKind::kHello   ? "hello: "
                      : kind == PostKind::kBatch ? "batch: "
                                                 : "error: ";
  // A hello that carries the remembered cookie has had its header fields
  // replaced by the Cookie field alone, so the two labels are absent by design.
  bool labelsExpected = !(kind == PostKind::kHello && headers.cookie);
  if (labelsExpected) {
    if (headers.contentType != std::string(kEnvelopeContentType)) {
      out.problems.push_back(std::string(label) + "Content-Type is " +
                             (headers.contentType ? "\"" + *headers.contentType + "\"" : "absent") +
                             ", expected \"" + kEnvelopeContentType + "\"");
    }
    if (headers.contentEncoding != std::string(kEnvelopeContentEncoding)) {
      out.problems.push_back(
          std::string(label) + "Content-Encoding is " +
          (headers.contentEncoding ? "\"" + *headers.contentEncoding + "\"" : "absent") +
          ", expected \"" + kEnvelopeContentEncoding + "\"");
    }
  }

  DecodedEnvelope envelope;
  try {
    envelope = decodeTelvoJsonParameter(body, maxInflatedBytes);
  } catch (const std::exception& e) {
    envelope.failure = DecodedEnvelope::Failure::kJson;
    envelope.message = e.what();
  }
  if (!envelope.ok()) {
    std::string text = std::string(label) + layerName(envelope.failure);
    if (!envelope.message.empty()) text += " (" + envelope.message + ")";
    out.problems.push_back(std::move(text));
    return out;
  }
  if (!envelope.document.is_object()) {
    out.problems.push_back(std::string(label) + "document is not a JSON object: " +
                           compact(envelope.document).substr(0, 200));
    return out;
  }
  out.decoded = true;
  out.document = std::move(envelope.document);
  switch (kind) {
    case PostKind::kHello:
      checkHello(out.document, receivedMs, out);
      out.hello.cookie = headers.cookie;
      break;
    case PostKind::kBatch:
      checkBatch(out.document, receivedMs, knownSession, out);
      break;
    case PostKind::kError:
      checkError(out.document, receivedMs, knownSession, out);
      break;
  }
  return out;
}

}  // namespace telvo::tool
