// A login daemon with one path service, for a tracer to make its calls fail:
// fault_daemon PATH
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/system/support/daemon.h"

int main(int argc, char **argv)
{
    if (argc != 2) {
        return 2;
    }
    // The tracer lets go of it when it is killed; a tracer that has gone
    // before is noticed by the parent that took its place.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getenv("TMPDIR") == nullptr || getppid() == 1) {
        return 2;
    }
    const vc_reg reg = relaying(AF_UNIX, 0, argv[1], 7);
    if (vc_service_reg(&reg) != 0) {
        return 2;
    }
    return vc_service_start();
}
