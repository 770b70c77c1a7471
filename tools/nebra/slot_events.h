// What nebra watch sleeps on between looks at a module: the end of the interval, a stop request,
// or a slot event the module reports from C_WaitForSlotEvent blocking on a thread of its own.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>

#include "nebralib/pkcs11/client.h"

namespace nebra {

class Alarm {
public:
    enum class Woken { Timeout, SlotEvent, Stop };
    // From any thread (not from a signal handler).
    void stop();
    void slotEvent();
    // Sleeps until `deadline`, a slot event or a stop request; a stop request is kept, an event is
    // taken.
    Woken sleepUntil(std::chrono::steady_clock::time_point deadline);
    bool stopping();

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false, event_ = false;
};

// C_WaitForSlotEvent blocking on a thread of its own, ringing `alarm` at each event. After an
// event the thread waits until the watch has looked (resume()), so that a module reporting events
// without end cannot make it spin. It ends when the module cannot wait that way (the first call
// fails: not supported, or a module initialised for one thread only), on any other failure, or at
// the next event after quit(). A thread still waiting ends with the process.
class SlotEventThread {
public:
    SlotEventThread(const pkcs11::CkLibrary& library, Alarm& alarm);
    // Whether the thread is still waiting for events.
    bool running() const;
    // Whether the module ever reported an event through it.
    bool delivered() const;
    // What the wait returned when the thread ended (CKR_OK while it runs, or when it was asked to
    // end).
    CK_RV endedWith() const;
    // The slots the events named since the last call.
    std::set<CK_SLOT_ID> takeSlots();
    // The watch has looked after an event: the thread waits for the next one.
    void resume();
    // Ends the thread at its next event instead of waiting again.
    void quit();

private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace nebra
