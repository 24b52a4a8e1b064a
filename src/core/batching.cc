// The batch timer and the flush.
#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <deque>

#include "core/shutdown.h"
#include "core/telvo_impl.h"
#include "delivery/batch_payload.h"
#include "delivery/flush_order.h"
#include "delivery/flush_rules.h"
#include "telvo/log.h"

namespace telvo {

using delivery::BatchTimerRules;

void Telvo::Impl::startTimer() {
  std::shared_ptr<const TelvoMasterConfig> master;
  bool mayStart = false;
  {
    std::lock_guard<std::mutex> lock(mutex);
    master = masterConfig;
    mayStart = BatchTimerRules::mayStart(batchTimer != nullptr, owner.isInitialized(),
                                         master != nullptr);
  }
  if (!mayStart) {
    if (debugging()) log(BatchTimerRules::kRefusal);
    return;
  }
  // The executor is called without the lock; a start racing with this one is
  // settled below, keeping the timer that was stored first.
  std::weak_ptr<Telvo> weak = self();
  auto timer = platform.mainQueue->scheduleRepeating(BatchTimerRules::interval(master->batchAmount()), [weak] {
    if (auto client = weak.lock()) client->timedPost();
  });
  bool raced = false;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (batchTimer) {
      raced = true;
    } else {
      batchTimer = timer;
    }
  }
  if (raced) {
    timer->invalidate();
    if (debugging()) log(BatchTimerRules::kRefusal);
    return;
  }
  if (debugging()) log("Telvo timer - starting new timer");
}

void Telvo::Impl::stopTimer() {
  if (debugging()) log("[TELVO::stopTimer:] - Stopping timer on instance: " + owner.description());
  std::shared_ptr<Timer> timer;
  {
    std::lock_guard<std::mutex> lock(mutex);
    timer = std::move(batchTimer);
    batchTimer.reset();
  }
  if (timer) {
    timer->invalidate();
    if (debugging()) log("Telvo timer - invalidating and nullifying");
  } else if (debugging()) {
    log("Telvo timer already nil.");
  }
}

void Telvo::Impl::dumpEvents() {
  try {
    platform.mainQueue->post([self = self()] {
      try {
        self->_impl->flushNow();
      } catch (const std::exception& e) {
        log(std::string("Telvo: batch post dropped: ") + e.what());
      }
    });
  } catch (const std::exception& e) {
    // The events stay queued for the next flush.
    log(std::string("Telvo: the main queue refused a flush: ") + e.what());
  }
}

void Telvo::Impl::flushNow() {
  // Everything accepted so far is captured first: paced events wait for the
  // flush as pending ones.
  drainPendingEvents();
  // Taken whole and the queue left empty before anything is sent: whatever
  // becomes of the post, these events are not sent again.
  std::deque<delivery::QueuedEvent> events = queue.takeAll();
  if (events.empty()) return;
  queuedBytes.fetch_sub(static_cast<std::int64_t>(core::EventQueue::bytes(events)));
  delivery::sortByTimestamp(events);

  const Snapshot current = snapshot();
  const Locations at = locations(current.master.get());
  // One post, or several in timestamp order when the events exceed a post.
  for (std::size_t next = 0; next < events.size();) {
    const std::size_t from = next;
    auto part = delivery::BatchPayload::write(*current.session, events, next, options.maxPostBytes);
    next = part.next;
    std::vector<std::uint64_t> spooled;
    if (spool) {
      for (std::size_t i = from; i < next; ++i) {
        if (events[i].spoolSequence() != 0) spooled.push_back(events[i].spoolSequence());
      }
    }
    if (part.oversized > 0) {
      counters.eventsDroppedTooLarge.add(part.oversized);
      tooLarge.drop([&] {
        return "Telvo: dropped " + std::to_string(part.oversized) +
               " event(s) larger than one post may be (" + std::to_string(options.maxPostBytes) +
               " bytes); such events are dropped and counted until one fits";
      });
    }
    if (part.events == 0) {
      forget(spooled);
      continue;
    }
    if (debugging()) log("Sending events string: " + part.json);
    post(delivery::BatchPayload::request(at.servicesUrl, at.batchApi, part.json), part.events,
         deliveries->begin(), std::move(spooled));
  }
}

void Telvo::Impl::post(URLRequest request, std::size_t events,
                       std::shared_ptr<core::Deliveries::Ticket> ticket,
                       std::vector<std::uint64_t> spooled) {
  const auto size = static_cast<std::int64_t>(request.HTTPBody ? request.HTTPBody->size() : 0);
  // One post is always let through: a bound smaller than one body must not
  // stop everything.
  const std::int64_t before = backlogBytes.fetch_add(size);
  if (before > 0 && static_cast<std::uint64_t>(before + size) > options.maxBacklogBytes) {
    backlogBytes.fetch_sub(size);
    if (events > 0) {
      counters.eventsDroppedBacklog.add(events);
    } else {
      counters.errorsDropped.add();
    }
    backlogFull.drop([&] {
      return "Telvo: the transport's backlog is full (" + std::to_string(options.maxBacklogBytes) +
             " bytes of requests under way): new posts are dropped and counted until it drains";
    });
    return;  // the ticket goes back with it
  }
  backlogFull.fits();
  if (events > 0) counters.postsMade.add();
  auto outgoing = std::make_shared<Outgoing>();
  outgoing->events = events;
  outgoing->bytes = size;
  outgoing->spooled = std::move(spooled);
  if (options.retry) {
    outgoing->request = std::move(request);
    outgoing->ticket = std::move(ticket);
    {
      // Behind a retry, posts wait their turn and go one at a time.
      std::lock_guard<std::mutex> lock(retryMutex);
      if (lineBusy) {
        line.push_back(std::move(outgoing));
        return;
      }
    }
    send(std::move(outgoing));
    return;
  }
  // Runs once, while the request's delegate (holding the client) is alive.
  auto judge = [this, outgoing](const delivery::Attempt& attempt) {
    settle(*outgoing, delivery::RetryRules::post(attempt) == delivery::Verdict::kDelivered);
  };
  platform.transport->sendRequest(
      std::move(request), kPostContext,
      core::Deliveries::tracked(self(), std::move(ticket), std::move(judge)));
}

void Telvo::Impl::replaceBatch(const std::vector<Event>& events) {
  std::lock_guard<std::mutex> drainLock(drainMutex);
  drainLocked();
  // The pending ones are captured first, so the new queue replaces them too.
  const auto replaced = queue.replace(events);
  queuedBytes.fetch_sub(static_cast<std::int64_t>(core::EventQueue::bytes(replaced)));
  // What was just queued: read back rather than counted twice.
  std::size_t added = 0;
  for (const Event& event : events) {
    added += event.name().size() + event.data().size() + delivery::QueuedEvent::kOverheadBytes;
  }
  queuedBytes.fetch_add(static_cast<std::int64_t>(added));
}

bool Telvo::Impl::flush(std::chrono::milliseconds timeout) {
  const auto deadline = core::deadlineAfter(timeout);
  if (options.retry && !initialized.load(std::memory_order_acquire)) {
    // Events kept before initialisation go once the hello has answered.
    std::unique_lock<std::mutex> lock(initializedMutex);
    if (!initializedSignal.wait_until(lock, deadline, [this] {
          return initialized.load(std::memory_order_acquire) ||
                 earlyRefused.load(std::memory_order_relaxed);
        })) {
      return false;
    }
  }
  if (platform.mainQueue->isCurrent()) {
    // Waiting here would hold up the very work waited for.
    dumpEvents();
    return false;
  }
  // On the main queue, behind every capture already accepted: capture them,
  // flush, and note which posts and reports are now handed over.
  struct Horizon {
    std::mutex mutex;
    std::condition_variable set;
    std::optional<std::uint64_t> value;
  };
  auto horizon = std::make_shared<Horizon>();
  try {
    platform.mainQueue->post([self = self(), horizon] {
      try {
        self->_impl->flushNow();
      } catch (const std::exception& e) {
        log(std::string("Telvo: batch post dropped: ") + e.what());
      }
      {
        std::lock_guard<std::mutex> lock(horizon->mutex);
        horizon->value = self->_impl->deliveries->horizon();
      }
      horizon->set.notify_all();
    });
  } catch (const std::exception& e) {
    log(std::string("Telvo: the main queue refused a flush: ") + e.what());
    return false;
  }
  std::uint64_t until;
  {
    std::unique_lock<std::mutex> lock(horizon->mutex);
    if (!horizon->set.wait_until(lock, deadline, [&] { return horizon->value.has_value(); })) {
      return false;
    }
    until = *horizon->value;
  }
  if (!deliveries->waitBefore(until, deadline)) return false;
  // Anything dropped by a bound or lost in a failed post since the last
  // flush makes this one fail.
  const std::uint64_t lost = counters.lost();
  return lostAtLastFlush.exchange(lost) == lost;
}

}  // namespace telvo
