#include "collector/row_json.h"

#include "encoding/json_text.h"

namespace telvo::tool {
namespace {

Json parsedOrText(const std::string& text) {
  Json value = encoding::parseJson(text);
  return value.is_discarded() ? Json(text) : value;
}

Json optionalJson(const std::optional<std::string>& value) {
  return value ? Json(*value) : Json(nullptr);
}

Json optionalJson(const std::optional<std::int64_t>& value) {
  return value ? Json(*value) : Json(nullptr);
}

}  // namespace

Json eventJson(const EventRow& row) {
  Json out{{"id", row.id},
           {"sessionId", row.sessionId},
           {"eventType", row.type},
           {"eventTime", optionalJson(row.eventMs)},
           {"received", row.receivedMs}};
  if (!row.dataWhole) {
    out["dataPreview"] = row.dataJson;
    out["dataLength"] = row.dataLength;
  } else {
    out["eventData"] = parsedOrText(row.dataJson);
  }
  return out;
}

Json sessionJson(const SessionRow& row) {
  return Json{{"sessionId", row.id},
              {"received", row.receivedMs},
              {"serviceTime", row.serviceMs},
              {"throttled", row.throttled},
              {"hello", parsedOrText(row.helloJson)},
              {"cookie", optionalJson(row.cookie)}};
}

Json errorJson(const ErrorRow& row) {
  return Json{{"id", row.id},
              {"sessionId", row.sessionId},
              {"applicationName", optionalJson(row.application)},
              {"errorCode", parsedOrText(row.errorCodeJson)},
              {"errorTime", optionalJson(row.errorMs)},
              {"data", parsedOrText(row.dataJson)},
              {"received", row.receivedMs}};
}

Json problemJson(const ProblemRow& row) {
  return Json{{"id", row.id},
              {"received", row.receivedMs},
              {"method", row.method},
              {"path", row.path},
              {"description", row.description}};
}

std::string jsonText(const Json& value, int indent) {
  return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace telvo::tool
