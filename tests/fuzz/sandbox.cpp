#include "fuzz/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "support/log.h"
#include "support/namespaces.h"

namespace fuzz {

void enter_sandbox()
{
    if (const char *step = tk::enter_namespaces(false)) {
        fprintf(stderr, "fuzz sandbox: %s failed (the targets need root)\n", step);
        exit(2);
    }
    log_set_level(LOG_LEVEL_DEBUG);
    const char *show = getenv("FUZZ_SHOW_LOG");
    if (!show || strcmp(show, "1") != 0)
        dup2(open("/dev/null", O_WRONLY), 1);
    uloop_init();
}

int open_fds()
{
    int n = -1;  // the listing's own descriptor
    DIR *d = opendir("/proc/self/fd");
    while (struct dirent *e = d ? readdir(d) : nullptr)
        n += e->d_name[0] != '.';
    if (d)
        closedir(d);
    return n;
}

}  // namespace fuzz

// Every target enters the sandbox before its first input.
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::enter_sandbox();
    return 0;
}
