// The one shape of every hello, batch post and error post: a POST of the
// envelope to the service, with the two content headers, no cached data and
// a 30 s time-out. Pure; any thread.
#pragma once

#include <string>
#include <string_view>

#include "telvo/url_request.h"

namespace telvo {
namespace encoding {

// What the envelope's plain text begins with, before the JSON.
inline constexpr std::string_view kParameterPrefix = "telvoJson=";

// A POST of `json` in the envelope to `address` ("http://" upgraded to
// "https://"). The body is absent where the envelope cannot be built.
URLRequest envelopeRequest(const std::string& address, std::string_view json);

}  // namespace encoding
}  // namespace telvo
