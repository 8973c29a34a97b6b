// Levelled logging.  Every line goes to standard output through stdio; the sink
// set up by log_init() is reached by redirecting descriptors 0, 1 and 2 onto it,
// so anything else the process prints (getopt's complaints on stderr, uthash)
// lands in the same place.
#include "support/log.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace {

int g_log_level = LOG_LEVEL_ERROR;
int g_sink_fd = -1;
int g_saved_fd[3] = {-1, -1, -1};

}  // namespace

void log_print(int level, const char *format, ...)
{
    if (level > g_log_level)
        return;
    va_list ap;
    va_start(ap, format);
    vprintf(format, ap);
    va_end(ap);
}

long get_uptime(void)
{
    struct sysinfo info;
    if (sysinfo(&info) != 0) {
        int err = errno;
        // Straight to stderr: this runs while a log line is being built, so it
        // cannot go through the level filter itself.
        fprintf(stderr, "Failed to get sysinfo, errno:%u, reason:%s\n", (unsigned)err, strerror(err));
        return -1;
    }
    return info.uptime;
}

void log_set_level(int level)
{
    g_log_level = level;
}

int log_get_level(void)
{
    return g_log_level;
}

void log_init(void)
{
    if (g_sink_fd != -1)
        return;

    // The log file is only used when someone created it beforehand; it is
    // neither created nor truncated, so writing starts at its first byte.
    if (access(LANPROBE_LOG_LOG_FILE, F_OK) == 0)
        g_sink_fd = open(LANPROBE_LOG_LOG_FILE, O_WRONLY);
    else
        g_sink_fd = open(LANPROBE_LOG_CONSOLE, O_WRONLY);
    if (g_sink_fd < 0) {
        g_sink_fd = -1;
        return;
    }
    // When one of the standard descriptors was closed, open() hands out that
    // number; move the sink above 2 so the loop below does not close it.
    if (g_sink_fd <= 2) {
        int moved = fcntl(g_sink_fd, F_DUPFD, 3);
        if (moved >= 0) {
            close(g_sink_fd);
            g_sink_fd = moved;
        }
    }

    // Anything already sitting in the stdout buffer belongs to the old target.
    fflush(stdout);
    for (int fd = 0; fd <= 2; fd++) {
        g_saved_fd[fd] = dup(fd);
        close(fd);
        dup2(g_sink_fd, fd);
    }
}

void log_restore_stdio(void)
{
    g_log_level = 0;

    // stdout is fully buffered while it points at a file.  Without this flush the
    // last lines (the SIGTERM handler's "receive signal" line among them) would
    // stay in the buffer across the descriptor swap and be written at exit to
    // the inherited stdout instead of the sink they were logged to.
    fflush(stdout);
    fflush(stderr);

    for (int fd = 0; fd <= 2; fd++) {
        if (g_saved_fd[fd] == -1)
            continue;
        dup2(g_saved_fd[fd], fd);
        close(g_saved_fd[fd]);
        g_saved_fd[fd] = -1;
    }
    if (g_sink_fd != -1) {
        close(g_sink_fd);
        g_sink_fd = -1;
    }
}

void log_done(void)
{
    log_restore_stdio();
}
