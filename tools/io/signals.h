// Signals that end the process.

#pragma once

#include <csignal>

namespace crrecord::tool {

// Signals from outside that end a process, except the real-time ones. Ignored signals stay ignored.
inline constexpr int kEnders[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGTERM,   SIGPIPE, SIGALRM, SIGUSR1,
                                  SIGUSR2, SIGXCPU, SIGPROF, SIGVTALRM, SIGPOLL, SIGPWR,  SIGSTKFLT};

// Blocks these signals while it lives, for this thread, so that none ends the process while a file exists
// that nobody would remove. New threads inherit the mask.
class EndersBlocked {
public:
    // `except` is not blocked. A thread that writes needs SIGPIPE.
    explicit EndersBlocked(int except = 0) {
        sigset_t enders;
        ::sigemptyset(&enders);
        for (int const signal : kEnders) {
            if (signal != except) {
                ::sigaddset(&enders, signal);
            }
        }
        ::pthread_sigmask(SIG_BLOCK, &enders, &former_);
    }
    ~EndersBlocked() { ::pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
    EndersBlocked(EndersBlocked const&) = delete;
    EndersBlocked& operator=(EndersBlocked const&) = delete;

private:
    sigset_t former_;
};

} // namespace crrecord::tool
