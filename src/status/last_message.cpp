// The buffers of last messages.
//
// They are no thread_local arrays. The C library allocates the thread-local storage of a library loaded by dlopen when
// a thread first uses it, and ends the process if that fails. Only a pointer and a flag are thread-local. The
// initial-exec model places them in the block that each thread has from its start; dlopen can use a few hundred bytes
// of it.

#include "status/last_message.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include <pthread.h>

namespace crrecord {

namespace {

// For threads that cannot allocate a buffer.
struct SpareBuffer {
    std::atomic<bool> taken{false};
    char text[kMessageSize]{};
};
constinit SpareBuffer spares[16];

// The last message of a thread for which no spare buffer is free either.
constexpr char kNotKept[] = "not enough memory to keep this thread's last message; the log has it";

[[gnu::tls_model("initial-exec")]] constinit thread_local char* buffer = nullptr;
[[gnu::tls_model("initial-exec")]] constinit thread_local bool notKept = false;

// The key's destructor releases the buffer of a thread that ends. Storing a value for one of the first 32 keys of the
// process needs no memory, unlike a destructor of a thread_local object. So the key is created at load time.
pthread_key_t key;
bool haveKey = false;

char* TakeSpare() noexcept {
    for (SpareBuffer& spare : spares) {
        if (!spare.taken.exchange(true, std::memory_order_acquire)) {
            return spare.text;
        }
    }
    return nullptr;
}

void Release(char* released) noexcept {
    for (SpareBuffer& spare : spares) {
        if (released == spare.text) {
            spare.taken.store(false, std::memory_order_release);
            return;
        }
    }
    std::free(released);
}

// Keeps `allocated`, which may be null, as this thread's buffer until the thread ends.
void Adopt(char* allocated) noexcept {
    if (allocated && (!haveKey || pthread_setspecific(key, allocated) != 0)) {
        Release(allocated);
        allocated = nullptr;
    }
    buffer = allocated;
}

// Another key's destructor may log later. The thread then adopts a new buffer, and this function is called again.
extern "C" void ReleaseAtThreadEnd(void* ended) {
    buffer = nullptr;
    Release(static_cast<char*>(ended));
}

// Runs before other initialisers, which may log. The thread that loads the library takes a spare buffer and so never
// allocates one.
[[gnu::constructor(101)]] void Initialise() noexcept {
    haveKey = pthread_key_create(&key, ReleaseAtThreadEnd) == 0;
    Adopt(TakeSpare());
}

} // namespace

char const* LastMessage() noexcept {
    return buffer ? buffer : notKept ? kNotKept : "";
}

void SetLastMessage(char const* message) noexcept {
    if (!buffer) {
        char* const allocated = static_cast<char*>(std::malloc(kMessageSize));
        Adopt(allocated ? allocated : TakeSpare());
    }
    notKept = !buffer;
    if (buffer) {
        std::strcpy(buffer, message);
    }
}

} // namespace crrecord
