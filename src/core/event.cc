#include "telvo/event.h"

#include "core/json_text.h"

namespace telvo {

std::string Event::description() const {
  return "name: " + _name + ", session: " + (_session ? core::dumpJson(*_session) : "(null)") +
         ", data: " + _data;
}

}  // namespace telvo
