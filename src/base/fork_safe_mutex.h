// A mutex of the process that a child of fork() can lock, too.

#pragma once

#include <mutex>

#include <pthread.h>

namespace crrecord {

// Each Tag has one mutex, whatever the number of objects. The thread that forks holds it meanwhile: otherwise the child
// would inherit it locked if another thread held it, and that thread doesn't exist in the child to unlock it.
template <class Tag>
class ForkSafeMutex {
public:
    void lock() {
        static_cast<void>(&registered_); // instantiates it
        mutex_.lock();
    }
    void unlock() noexcept { mutex_.unlock(); }

private:
    static void Lock() { mutex_.lock(); }
    static void Unlock() noexcept { mutex_.unlock(); }

    constinit static inline std::mutex mutex_;
    // At load time; without memory for it a child is on its own.
    static inline int const registered_ = ::pthread_atfork(Lock, Unlock, Unlock);
};

} // namespace crrecord
