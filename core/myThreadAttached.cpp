// SPDX-License-Identifier: Apache-2.0
#include "core/myThreadAttached.h"

myThreadAttached::~myThreadAttached() { Stop(); }

bool myThreadAttached::Start() {
    if (m_thread.joinable())
        return false;
    m_stop.store(false, std::memory_order_release);
    m_thread = std::thread([this] { functionThread(); });
    return true;
}

void myThreadAttached::Stop() {
    m_stop.store(true, std::memory_order_release);
    Wake();
    if (!m_thread.joinable())
        return;
    if (m_thread.get_id() == std::this_thread::get_id())
        m_thread.detach();  // asked from inside the thread: it ends when it returns
    else
        m_thread.join();
}

void myThreadAttached::Wake() {
    // Taking the mutex orders the caller's state change before the waiter's
    // predicate check, so a wake-up is never lost.
    { std::lock_guard<std::mutex> lock(m_wakeMutex); }
    m_wakeCv.notify_all();
}
