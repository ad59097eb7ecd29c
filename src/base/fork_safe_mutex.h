// A process-wide mutex that a child of fork() can lock, too.

#pragma once

#include <mutex>

#include <pthread.h>

namespace crrecord {

// All objects with the same Tag share one mutex. A thread that calls fork() holds the mutex during the call. Otherwise
// the child could inherit a mutex locked by another thread, which does not exist in the child to unlock it.
template <class Tag>
class ForkSafeMutex {
public:
    void lock() {
        static_cast<void>(&registered_); // instantiates registered_
        mutex_.lock();
    }
    void unlock() noexcept { mutex_.unlock(); }

private:
    static void Lock() { mutex_.lock(); }
    static void Unlock() noexcept { mutex_.unlock(); }

    constinit static inline std::mutex mutex_;
    // Set at load time. If the registration fails, a child may inherit a locked mutex.
    static inline int const registered_ = ::pthread_atfork(Lock, Unlock, Unlock);
};

} // namespace crrecord
