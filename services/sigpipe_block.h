// libldap writes to its socket with plain write(), and so does OpenSSL under
// libcurl: a server that drops the connection would raise SIGPIPE and end
// the host process. The signal is held back on this thread for a fetch, and
// one it caused is taken away.
#ifndef QXCRL_SERVICES_SIGPIPE_BLOCK_H
#define QXCRL_SERVICES_SIGPIPE_BLOCK_H

#include <csignal>
#include <pthread.h>

namespace qxfetch {

class SigpipeBlock {
  public:
    SigpipeBlock() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        alreadyPending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipe_, &previous_);
    }
    ~SigpipeBlock() {
        sigset_t pending;
        sigpending(&pending);
        if (!alreadyPending_ && sigismember(&pending, SIGPIPE) == 1) {
            const timespec now{0, 0};
            sigtimedwait(&pipe_, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    }
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;

  private:
    sigset_t pipe_;
    sigset_t previous_;
    bool alreadyPending_ = false;
};

} // namespace qxfetch

#endif
