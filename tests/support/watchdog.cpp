#include "watchdog.h"

#include <csignal>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qxtest {

std::optional<uint32_t> result_within(std::chrono::seconds limit,
                                      const std::function<uint32_t()>& call) {
    int channel[2];
    if (pipe(channel) != 0)
        return std::nullopt;
    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        const uint32_t result = call();
        // _exit: the child must not run the parent's exit handlers or tests.
        _exit(write(channel[1], &result, sizeof result) == sizeof result ? 0 : 1);
    }
    close(channel[1]);
    std::optional<uint32_t> answer;
    pollfd ready{channel[0], POLLIN, 0};
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(limit);
    uint32_t result = 0;
    if (child > 0 && poll(&ready, 1, static_cast<int>(milliseconds.count())) == 1 &&
        read(channel[0], &result, sizeof result) == sizeof result)
        answer = result;
    close(channel[0]);
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    return answer;
}

} // namespace qxtest
