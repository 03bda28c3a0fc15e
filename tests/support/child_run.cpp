#include "child_run.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qxtest {

ChildRun run_in_child(const std::function<StatusCode()>& op) {
    int channel[2];
    if (pipe(channel) != 0)
        return {};
    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        rusage before{};
        getrusage(RUSAGE_SELF, &before);
        ChildRun run;
        run.status = op();
        rusage after{};
        getrusage(RUSAGE_SELF, &after);
        run.growthKb = after.ru_maxrss - before.ru_maxrss;
        const bool written = write(channel[1], &run, sizeof run) == sizeof run;
        _exit(written ? 0 : 1);
    }
    close(channel[1]);
    ChildRun run;
    if (child < 0 || read(channel[0], &run, sizeof run) != sizeof run)
        run = {};
    close(channel[0]);
    int status = 0;
    if (child > 0)
        waitpid(child, &status, 0);
    return run;
}

} // namespace qxtest
