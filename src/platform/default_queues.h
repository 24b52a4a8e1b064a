// The process's default queues as they are, without making them.
#pragma once

#include <memory>

namespace telvo {

class Executor;

namespace platform {

// The current main / background queue, or null when none has been made or set.
std::shared_ptr<Executor> peekMainQueue();
std::shared_ptr<Executor> peekBackgroundQueue();

}  // namespace platform
}  // namespace telvo
