#include "collector/post_checker.h"

#include <cctype>
#include <initializer_list>
#include <utility>

namespace telvo::tool {
namespace {

// Device texts quoted in a problem line are cut to this many bytes.
constexpr std::size_t kQuotedText = 64;

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

// At most `length` bytes of UTF-8 `text`, not cutting a character in two.
std::string_view headOf(std::string_view text, std::size_t length) {
  if (text.size() <= length) return text;
  while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) --length;
  return text.substr(0, length);
}

// `text` in quotes for a problem line, cut when long (saying how long).
std::string quotedText(std::string_view text) {
  std::string out = "\"" + std::string(headOf(text, kQuotedText)) + "\"";
  if (text.size() > kQuotedText) out += "... (" + std::to_string(text.size()) + " bytes)";
  return out;
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

// Collects problems with a common prefix ("batch: ", "hello: "), at most
// `limit` of them; how many more there were is added by finish().
class Problems {
 public:
  Problems(std::vector<std::string>* out, std::string prefix, std::size_t limit)
      : out_(out), prefix_(std::move(prefix)), limit_(limit) {}
  void add(const std::string& text) {
    if (out_->size() < limit_) {
      out_->push_back(prefix_ + text);
    } else {
      ++leftOut_;
    }
  }
  void finish() {
    if (leftOut_ > 0) {
      out_->push_back(prefix_ + std::to_string(leftOut_) +
                      " more problems not listed (at most " + std::to_string(limit_) +
                      " are kept for one post)");
    }
  }

 private:
  std::vector<std::string>* out_;
  std::string prefix_;
  std::size_t limit_;
  std::size_t leftOut_ = 0;
};

// The document being checked.
struct Document {
  std::string_view json;
  // The text of the value at `span`, cut for a problem line.
  std::string preview(JsonSpan span, std::size_t length = kQuotedText) const {
    std::string_view text = json.substr(span.begin, span.size());
    std::string out(headOf(text, length));
    if (text.size() > length) out += "... (" + std::to_string(text.size()) + " bytes)";
    return out;
  }
  JsonKind kind(JsonSpan span) const { return kindOf(json, span); }
};

// Where the members named in `names` lie in the object at `object` (the
// last of a name counts, as in a parser), nothing for those absent. Every
// other member is reported as unexpected when `problems` is given.
std::vector<std::optional<JsonSpan>> findMembers(const Document& doc, JsonSpan object,
                                                 std::initializer_list<std::string_view> names,
                                                 Problems* problems,
                                                 const std::string& where = std::string()) {
  std::vector<std::optional<JsonSpan>> found(names.size());
  forEachMember(doc.json, object, [&](std::string_view written, JsonSpan value) {
    // Names are compared as written unless they hold escapes.
    std::string decoded;
    std::string_view name = written;
    if (written.find('\\') != std::string_view::npos) {
      decoded = decodeName(written);
      name = decoded;
    }
    std::size_t i = 0;
    for (std::string_view wanted : names) {
      if (name == wanted) {
        found[i] = value;
        return;
      }
      ++i;
    }
    if (problems) problems->add("unexpected member " + quotedText(name) + where);
  });
  return found;
}

std::optional<std::string> textMember(const Document& doc, const std::optional<JsonSpan>& value,
                                      const char* key, Problems& problems, bool required = true) {
  if (!value) {
    if (required) problems.add(std::string("missing member \"") + key + "\"");
    return std::nullopt;
  }
  if (doc.kind(*value) != JsonKind::kString) {
    problems.add(std::string("member \"") + key + "\" is not text");
    return std::nullopt;
  }
  return decodeString(doc.json, *value);
}

// "sessionId" of a batch or error post: text naming a session handed out.
// The id as stored.
std::string sessionMember(const Document& doc, const std::optional<JsonSpan>& value,
                          Problems& problems, const PostChecker::SessionLookup& knownSession,
                          std::size_t maxLength) {
  if (!value) {
    problems.add("missing member \"sessionId\"");
    return std::string();
  }
  if (doc.kind(*value) != JsonKind::kString) {
    problems.add("member \"sessionId\" is not text: " + doc.preview(*value));
    return doc.preview(*value, maxLength);
  }
  std::string id = decodeString(doc.json, *value);
  if (id.empty()) {
    problems.add("empty session id (sent before the hello was answered)");
  } else if (id.size() > maxLength || (knownSession && !knownSession(id))) {
    problems.add("unknown session id " + quotedText(id));
  }
  if (id.size() > maxLength) {
    problems.add("session id of " + std::to_string(id.size()) + " bytes stored cut to its first " +
                 std::to_string(maxLength));
    id = std::string(headOf(id, maxLength));
  }
  return id;
}

void checkHello(const Document& doc, JsonSpan document, Problems& problems, CheckedPost& out) {
  SessionRow& row = out.hello;
  auto m = findMembers(doc, document,
                       {"propertyName", "applicationName", "applicationVersion", "platformName",
                        "deviceType", "deviceVersion", "clientDeviceId", "deviceModel",
                        "telvoUUIDToken"},
                       &problems);
  row.property = textMember(doc, m[0], "propertyName", problems);
  row.application = textMember(doc, m[1], "applicationName", problems);
  row.applicationVersion = textMember(doc, m[2], "applicationVersion", problems);
  row.platform = textMember(doc, m[3], "platformName", problems);
  row.deviceType = textMember(doc, m[4], "deviceType", problems);
  row.deviceVersion = textMember(doc, m[5], "deviceVersion", problems);
  row.clientDeviceId = textMember(doc, m[6], "clientDeviceId", problems);
  row.deviceModel = textMember(doc, m[7], "deviceModel", problems);
  row.uuidToken = textMember(doc, m[8], "telvoUUIDToken", problems, /*required=*/false);
  if (row.deviceType && *row.deviceType != "settop") {
    problems.add("\"deviceType\" is " + quotedText(*row.deviceType) + ", not \"settop\"");
  }
  if (row.clientDeviceId && !isUpperUuid(*row.clientDeviceId)) {
    problems.add("\"clientDeviceId\" " + quotedText(*row.clientDeviceId) +
                 " is not an upper-case UUID (8-4-4-4-12)");
  }
}

void checkBatch(const Document& doc, JsonSpan document, Problems& problems,
                const PostChecker::SessionLookup& knownSession, const CheckLimits& limits,
                CheckedPost& out) {
  auto m = findMembers(doc, document, {"sessionId", "events"}, &problems);
  out.sessionId = sessionMember(doc, m[0], problems, knownSession, limits.maxSessionIdLength);
  if (!m[1]) {
    problems.add("missing member \"events\"");
    return;
  }
  if (doc.kind(*m[1]) != JsonKind::kArray) {
    problems.add("member \"events\" is not an array");
    return;
  }
  std::size_t i = 0;
  forEachElement(doc.json, *m[1], [&](JsonSpan element) {
    const std::string index = "events[" + std::to_string(i++) + "]";
    if (doc.kind(element) != JsonKind::kObject) {
      problems.add(index + " is not an object");
      return;
    }
    const std::string where = " in " + index;
    auto e = findMembers(doc, element, {"eventType", "eventData"}, &problems, where);
    if (!e[0] || doc.kind(*e[0]) != JsonKind::kString) {
      problems.add(index + " has no text \"eventType\"; not stored");
      return;
    }
    NewEvent row;
    row.type = decodeString(doc.json, *e[0]);
    if (!e[1]) {
      problems.add("missing member \"eventData\"" + where);
      row.dataJson = "{}";
    } else {
      row.dataJson = doc.json.substr(e[1]->begin, e[1]->size());
      if (doc.kind(*e[1]) != JsonKind::kObject) {
        problems.add("\"eventData\"" + where + " is not an object");
      } else if (auto stamp = findMembers(doc, *e[1], {"timestamp"}, nullptr)[0]) {
        if (doc.kind(*stamp) == JsonKind::kNumber) row.eventMs = wholeMilliseconds(doc.json, *stamp);
        if (!row.eventMs) problems.add("\"timestamp\"" + where + " is not a number");
      }
    }
    out.events.push_back(std::move(row));
  });
  if (i == 0) problems.add("empty \"events\" array (the library never sends one)");
}

void checkError(const Document& doc, JsonSpan document, Problems& problems,
                const PostChecker::SessionLookup& knownSession, const CheckLimits& limits,
                CheckedPost& out) {
  auto m = findMembers(doc, document, {"sessionId", "data"}, &problems);
  out.sessionId = sessionMember(doc, m[0], problems, knownSession, limits.maxSessionIdLength);
  if (!m[1]) {
    problems.add("missing member \"data\"");
    return;
  }
  const JsonSpan data = *m[1];
  if (doc.kind(data) != JsonKind::kObject) {
    problems.add("member \"data\" is not an object");
    return;
  }
  NewError row;
  row.dataJson = doc.json.substr(data.begin, data.size());
  auto d = findMembers(doc, data, {"applicationName", "errorCode", "timestamp"}, nullptr);
  row.application = textMember(doc, d[0], "applicationName", problems);
  if (!d[1]) {
    problems.add("missing member \"errorCode\" in \"data\"");
    row.errorCodeJson = "null";
  } else {
    row.errorCodeJson = doc.json.substr(d[1]->begin, d[1]->size());
  }
  if (!d[2]) {
    problems.add("missing member \"timestamp\" in \"data\"");
  } else {
    if (doc.kind(*d[2]) == JsonKind::kNumber) row.errorMs = wholeMilliseconds(doc.json, *d[2]);
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
                               const SessionLookup& knownSession, const CheckLimits& limits) {
  CheckedPost out;
  const char* label = kind == PostKind::kHello   ? "hello: "
                      : kind == PostKind::kBatch ? "batch: "
                                                 : "error: ";
  Problems problems(&out.problems, label, limits.maxProblems);
  // A hello that carries the remembered cookie has had its header fields
  // replaced by the Cookie field alone, so the two labels are absent by design.
  bool labelsExpected = !(kind == PostKind::kHello && headers.cookie);
  if (labelsExpected) {
    if (headers.contentType != std::string(kEnvelopeContentType)) {
      problems.add(std::string("Content-Type is ") +
                   (headers.contentType ? quotedText(*headers.contentType) : "absent") +
                   ", expected \"" + kEnvelopeContentType + "\"");
    }
    if (headers.contentEncoding != std::string(kEnvelopeContentEncoding)) {
      problems.add(std::string("Content-Encoding is ") +
                   (headers.contentEncoding ? quotedText(*headers.contentEncoding) : "absent") +
                   ", expected \"" + kEnvelopeContentEncoding + "\"");
    }
  }

  ReadEnvelope envelope = readEnvelope(body, limits.envelope);
  out.text = envelope.text;
  if (!envelope.ok()) {
    std::string text = layerName(envelope.failure);
    if (!envelope.message.empty()) text += " (" + envelope.message + ")";
    problems.add(text);
    problems.finish();
    return out;
  }
  const Document doc{envelope.json};
  if (doc.kind(envelope.document) != JsonKind::kObject) {
    problems.add("document is not a JSON object: " + doc.preview(envelope.document, 200));
    problems.finish();
    return out;
  }
  out.decoded = true;
  out.document = envelope.json.substr(envelope.document.begin, envelope.document.size());
  switch (kind) {
    case PostKind::kHello:
      checkHello(doc, envelope.document, problems, out);
      out.hello.cookie = headers.cookie;
      break;
    case PostKind::kBatch:
      checkBatch(doc, envelope.document, problems, knownSession, limits, out);
      break;
    case PostKind::kError:
      checkError(doc, envelope.document, problems, knownSession, limits, out);
      break;
  }
  problems.finish();
  return out;
}

}  // namespace telvo::tool
