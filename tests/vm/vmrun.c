// Inside the virtual router: starts the daemon as the router's software does
// and records what the lab checks, as nsinit.py does on the host.  The daemon
// forks and its parent exits at once; as a child subreaper we inherit the
// forked child and reap it, so both exit statuses are known.
//
//   vmrun OUT LIMIT_S TERM_SYSCALLS BIN [ARGS...]
//
// OUT/stdout.txt     the daemon's inherited standard output and error
// OUT/placeholder    /tmp/lanprobe_result right after the parent ended
// OUT/status         one line per process: "parent|child|other PID EXIT SIGNAL
//                    MS CPU_MS" (EXIT or SIGNAL -1 when not that way), then
//                    "term MS" when a SIGTERM was sent and "timed_out" when
//                    LIMIT_S ran out
// TERM_SYSCALLS      "-", or system call numbers (comma-separated): SIGTERM to
//                    the forked child the first time it sleeps in one of them
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <dirent.h>

static long now_ms(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

static long stat_field(pid_t pid, const char *file)
{
    char path[64], buf[512];
    snprintf(path, sizeof(path), "/proc/%d/%s", (int)pid, file);
    int fd = open(path, O_RDONLY);
    if (fd < 0)
        return -1;
    ssize_t n = read(fd, buf, sizeof(buf) - 1);
    close(fd);
    if (n <= 0)
        return -1;
    buf[n] = 0;
    if (strcmp(file, "syscall") == 0)  // first word: the number it sleeps in
        return buf[0] >= '0' && buf[0] <= '9' ? atol(buf) : -1;
    char *p = strrchr(buf, ')');  // "pid (comm) state ppid ..."
    return p ? atol(p + 4) : -1;
}

// The process whose parent is now us: the daemon's forked child.
static pid_t adopted(pid_t skip)
{
    pid_t found = 0;
    DIR *d = opendir("/proc");
    for (struct dirent *e; d && (e = readdir(d));) {
        pid_t p = atoi(e->d_name);
        if (p > 0 && p != skip && stat_field(p, "stat") == getpid())
            found = p;
    }
    if (d)
        closedir(d);
    return found;
}

static void copy(const char *from, const char *to)
{
    char buf[4096];
    int in = open(from, O_RDONLY), out = in < 0 ? -1 : open(to, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    for (ssize_t n; out >= 0 && (n = read(in, buf, sizeof(buf))) > 0;)
        if (write(out, buf, n) != n)
            break;
    if (in >= 0)
        close(in);
    if (out >= 0)
        close(out);
}

int main(int argc, char **argv)
{
    if (argc < 5)
        return 2;
    char path[512];
    const long t0 = now_ms(), limit = atol(argv[2]) * 1000L;
    const char *term = strcmp(argv[3], "-") ? argv[3] : NULL;
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    snprintf(path, sizeof(path), "%s/stdout.txt", argv[1]);
    pid_t top = fork();
    if (top == 0) {
        int out = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(out, 1);
        dup2(out, 2);
        execv(argv[4], argv + 4);
        _exit(127);
    }
    snprintf(path, sizeof(path), "%s/status", argv[1]);
    FILE *st = fopen(path, "w");
    pid_t child = 0;
    int termed = 0, timed_out = 0;
    for (;;) {
        int status;
        struct rusage ru;
        pid_t p = wait4(-1, &status, WNOHANG, &ru);
        if (p < 0)
            break;
        if (p == 0) {
            long sc = child && term && !termed ? stat_field(child, "syscall") : -1;
            char want[32];
            snprintf(want, sizeof(want), ",%ld,", sc);
            snprintf(path, sizeof(path), ",%s,", term ? term : "");
            if (sc >= 0 && strstr(path, want)) {
                kill(child, SIGTERM);
                termed = 1;
                fprintf(st, "term %ld\n", now_ms() - t0);
            }
            if (now_ms() - t0 > limit && !timed_out) {
                timed_out = 1;
                kill(-1, SIGKILL);
            }
            usleep(1000);
            continue;
        }
        const char *who = p == top ? "parent" : p == child ? "child" : "other";
        fprintf(st, "%s %d %d %d %ld %ld\n", who, (int)p, WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                WIFSIGNALED(status) ? WTERMSIG(status) : -1, now_ms() - t0,
                (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1000L + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1000);
        if (p == top) {
            snprintf(path, sizeof(path), "%s/placeholder", argv[1]);
            copy("/tmp/lanprobe_result", path);
            child = adopted(top);
        }
    }
    if (timed_out)
        fprintf(st, "timed_out\n");
    fclose(st);
    return 0;
}
