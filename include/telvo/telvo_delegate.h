// TelvoDelegate: what a host implements to hear that a client became ready.
#pragma once

#include "telvo/export.h"

namespace telvo {

// A client holds its delegate weakly (Telvo::setDelegate) and never keeps it
// alive. Its one operation is optional: a delegate that wants it overrides
// both members below; otherwise the client calls nothing.
class TELVO_API TelvoDelegate {
 public:
  virtual ~TelvoDelegate() = default;

  // Whether the client should call telvoInitialized.
  virtual bool respondsToTelvoInitialized() const { return false; }

  // The client is initialised: events and errors are accepted from now on.
  // Called at most once per hello answer that carries a session id, on the
  // transport's thread (not the main queue) and with no library lock held; a
  // delegate that touches its user interface moves to its own thread itself.
  // Must not throw (an exception is caught, logged and dropped).
  virtual void telvoInitialized() {}
};

}  // namespace telvo
