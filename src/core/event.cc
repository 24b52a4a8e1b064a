#include "telvo/event.h"

#include "encoding/json_text.h"

namespace telvo {

std::string Event::description() const {
  return "name: " + _name + ", session: " + (_session ? encoding::dumpJson(*_session) : "(null)") +
         ", data: " + _data;
}

}  // namespace telvo
