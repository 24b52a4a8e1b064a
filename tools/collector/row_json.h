// The collector's rows as JSON, as `telvo events --json` prints them and the
// inspector's API serves them. Stored JSON texts are parsed again (bounded in
// depth); text that does not parse is given as a string.
#pragma once

#include "collector/collector_store.h"
#include "telvo/types.h"

namespace telvo::tool {

// {"id", "sessionId", "eventType", "eventData", "eventTime", "received"}; a
// row whose data was cut (PageQuery::previewLength) gives "dataPreview" (the
// cut text) and "dataLength" instead of "eventData".
Json eventJson(const EventRow& row);
// {"sessionId", "received", "serviceTime", "throttled", "hello", "cookie"}
Json sessionJson(const SessionRow& row);
// {"id", "sessionId", "applicationName", "errorCode", "errorTime", "data", "received"}
Json errorJson(const ErrorRow& row);
// {"id", "received", "method", "path", "description"}
Json problemJson(const ProblemRow& row);

// Compact JSON text of `value`; invalid UTF-8 from a device becomes U+FFFD.
std::string jsonText(const Json& value, int indent = -1);

}  // namespace telvo::tool
