#include "telvo/event.h"

#include "encoding/json_text.h"

namespace telvo {

std::string Event::description() const {
  return "name: " + _name + ", session: " + encoding::describeJson(_session.get()) +
         ", data: " + _data;
}

}  // namespace telvo
