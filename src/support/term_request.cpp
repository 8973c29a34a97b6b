#include "support/term_request.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <time.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t g_requested;
volatile sig_atomic_t g_own;
int g_pipe[2] = {-1, -1};

// 64 bits: a 32-bit long counts milliseconds of uptime for only 24.8 days.
int64_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

void term_request_init(void)
{
    if (g_pipe[0] < 0 && pipe2(g_pipe, O_NONBLOCK | O_CLOEXEC) != 0)
        g_pipe[0] = g_pipe[1] = -1;
}

void term_request_note(void)
{
    int saved = errno;
    g_requested = 1;
    if (g_pipe[1] >= 0) {
        ssize_t n = write(g_pipe[1], "T", 1);
        (void)n;  // a full pipe already holds a wake-up
    }
    errno = saved;
}

int term_request_fd(void)
{
    return g_pipe[0];
}

void term_request_drain(void)
{
    char buf[16];
    while (g_pipe[0] >= 0 && read(g_pipe[0], buf, sizeof(buf)) > 0) {
    }
}

void term_request_close(void)
{
    for (int &fd : g_pipe) {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
}

void term_mark_own(void)
{
    g_own = 1;
}

bool term_is_own(void)
{
    return g_own != 0;
}

void term_act_if_requested(void)
{
    if (!g_requested)
        return;
    term_mark_own();
    raise(SIGTERM);
}

void term_pause_ms(unsigned int ms)
{
    // poll() on the pipe alone is a sleep that a stop request cuts short;
    // other signals (SIGCHLD, SIGINT of the loop) only shorten one round.
    const int64_t end = now_ms() + ms;
    for (;;) {
        term_act_if_requested();
        const int64_t left = end - now_ms();
        if (left <= 0)
            return;
        struct pollfd pfd = {g_pipe[0], POLLIN, 0};
        poll(&pfd, 1, static_cast<int>(left));
    }
}
