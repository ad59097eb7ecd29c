#include "support/fault.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

struct State {
    unsigned long first;
    bool andRest;
    fault::Outcome seen;
};
thread_local State state{};
std::atomic<long> live = 0;

template <class Real>
void* Allocate(Real real, bool moves = false) {
    unsigned long const number = ++state.seen.attempts;
    bool const fails = state.first != 0 && (state.andRest ? number >= state.first : number == state.first);
    void* const block = fails ? nullptr : real();
    state.seen.live += block && !moves;
    live += block && !moves;
    return block;
}

// OpenSSL takes these before its first allocation only.
bool const cryptoIsOurs =
    CRYPTO_set_mem_functions([](std::size_t size, char const*, int) { return std::malloc(size); },
                             [](void* block, std::size_t size, char const*, int) { return std::realloc(block, size); },
                             [](void* block, char const*, int) { std::free(block); }) == 1;

} // namespace

fault::Outcome fault::Run(std::function<cr_status_t()> const& attempt, unsigned long first, bool andRest) {
    state = {first, andRest, {}};
    state.seen.status = attempt();
    return std::exchange(state, {}).seen;
}

unsigned long fault::FailEach(std::function<cr_status_t()> const& attempt) {
    EXPECT_TRUE(cryptoIsOurs);
    for (unsigned long number = 1;; ++number) {
        Outcome const outcome = Run(attempt, number);
        bool const failed = outcome.attempts >= number;
        EXPECT_EQ(outcome.status, failed ? CR_STATUS_NO_MEMORY : CR_STATUS_OK) << "allocation " << number;
        EXPECT_EQ(outcome.live, 0) << "allocation " << number;
        if (!failed) {
            return number - 1;
        }
    }
}

long fault::LiveOfAllThreads() {
    return live;
}

// The functions that the linker's --wrap calls.
extern "C" {
void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void* __real_realloc(void*, std::size_t);
void __real_free(void*);
void* __real___cxa_allocate_exception(std::size_t);

void* __wrap_malloc(std::size_t size) {
    return Allocate([=] { return __real_malloc(size); });
}
void* __wrap_calloc(std::size_t count, std::size_t size) {
    return Allocate([=] { return __real_calloc(count, size); });
}
void* __wrap_realloc(void* block, std::size_t size) {
    return Allocate([=] { return __real_realloc(block, size); }, block != nullptr);
}
void __wrap_free(void* block) {
    state.seen.live -= block != nullptr;
    live -= block != nullptr;
    __real_free(block);
}
void* __wrap___cxa_allocate_exception(std::size_t size) {
    ++state.seen.exceptions;
    return __real___cxa_allocate_exception(size);
}
}

void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
    return std::malloc(size);
}
void* operator new(std::size_t size) {
    void* const block = std::malloc(size);
    return block ? block : throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete(void* block, std::nothrow_t const&) noexcept {
    std::free(block);
}
