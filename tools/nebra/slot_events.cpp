#include "tools/nebra/slot_events.h"

#include <thread>

namespace nebra {

void Alarm::stop() {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
    wake_.notify_all();
}

void Alarm::slotEvent() {
    std::lock_guard<std::mutex> lock(mutex_);
    event_ = true;
    wake_.notify_all();
}

Alarm::Woken Alarm::sleepUntil(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait_until(lock, deadline, [this] { return stop_ || event_; });
    if (stop_) return Woken::Stop;
    if (!event_) return Woken::Timeout;
    event_ = false;
    return Woken::SlotEvent;
}

bool Alarm::stopping() {
    std::lock_guard<std::mutex> lock(mutex_);
    return stop_;
}

struct SlotEventThread::State {
    std::mutex mutex;
    std::condition_variable changed;
    bool running = true, delivered = false, resumed = false, quit = false;
    std::set<CK_SLOT_ID> slots;
    CK_RV endedWith = CKR_OK;
};

SlotEventThread::SlotEventThread(const pkcs11::CkLibrary& library, Alarm& alarm)
    : state_(std::make_shared<State>()) {
    // Blocking in one thread while another uses the module needs a module initialised for threads.
    if (!pkcs11::initializedForThreads(library)) {
        state_->running = false;
        return;
    }
    // Detached: a module may never return from the wait, and the thread then ends with the
    // process. It only touches the module, its own state and the alarm, which lives as long.
    std::thread([state = state_, functions = library.functions(), &alarm] {
        for (;;) {
            CK_SLOT_ID slot = 0;
            CK_RV rv = functions->C_WaitForSlotEvent(0, &slot, nullptr);
            std::unique_lock<std::mutex> lock(state->mutex);
            if (rv == CKR_OK && !state->quit) {
                state->delivered = true;
                state->slots.insert(slot);
                state->resumed = false;
                alarm.slotEvent();
                state->changed.wait(lock, [&] { return state->resumed || state->quit; });
            }
            if (rv != CKR_OK || state->quit) {
                state->running = false;
                state->endedWith = rv;
                state->changed.notify_all();
                return;
            }
        }
    }).detach();
}

bool SlotEventThread::running() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->running;
}

bool SlotEventThread::delivered() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->delivered;
}

std::set<CK_SLOT_ID> SlotEventThread::takeSlots() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    std::set<CK_SLOT_ID> slots;
    slots.swap(state_->slots);
    return slots;
}

CK_RV SlotEventThread::endedWith() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->endedWith;
}

void SlotEventThread::resume() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->resumed = true;
    state_->changed.notify_all();
}

void SlotEventThread::quit() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->quit = true;
    state_->changed.notify_all();
}

}  // namespace nebra
