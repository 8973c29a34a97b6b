// Runs a command and reports the CPU time and peak resident set size of the
// whole process tree it leaves behind.  lanprobe forks and its parent exits at
// once; as a child subreaper this program inherits the forked child, reaps it
// too, and then reads getrusage(RUSAGE_CHILDREN), which sums the user and
// system time of every reaped descendant and keeps the largest peak RSS.
//
//   bench_rusage [-o FILE] CMD [ARGS...]
//
// Prints one line (to FILE with -o, else to stderr):
//   rusage procs=N user_us=U sys_us=S cpu_us=U+S maxrss_kb=K wall_us=W status=X
//          own_cpu_us=C own_hwm_kb=H
// and exits with the status of the first process.  maxrss_kb is the largest
// peak of any descendant, helpers the command spawns included; own_* cover
// only the processes that run the command's own executable (same comm): their
// on-CPU time from /proc/PID/schedstat and their VmHWM, sampled every 2 ms
// while they live (so the last 2 ms of a process may be missing).
#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static long long now_us()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

static long long tv_us(const struct timeval &tv)
{
    return static_cast<long long>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

// Processes seen so far: the first one, and every descendant found through
// /proc/PID/task/PID/children of a known process or of this one.
struct tracked {
    pid_t pid;
    bool own;
    long long cpu_ns;
    long hwm_kb;
};
static tracked g_procs[256];
static int g_nprocs;
static char g_comm[32];

static tracked *find_or_add(pid_t pid)
{
    for (int i = 0; i < g_nprocs; i++)
        if (g_procs[i].pid == pid)
            return &g_procs[i];
    if (g_nprocs == 256)
        return nullptr;
    tracked *t = &g_procs[g_nprocs++];
    t->pid = pid;
    t->own = false;
    t->cpu_ns = 0;
    t->hwm_kb = 0;
    return t;
}

// A process found between its fork and its exec still has the old name, so
// this is asked again at every sample until it matches.
static bool runs_command(pid_t pid)
{
    char path[64], comm[32] = "";
    snprintf(path, sizeof(path), "/proc/%d/comm", pid);
    if (FILE *f = fopen(path, "r")) {
        if (fgets(comm, sizeof(comm), f))
            comm[strcspn(comm, "\n")] = 0;
        fclose(f);
    }
    return strcmp(comm, g_comm) == 0;
}

static void add_children_of(pid_t pid)
{
    char path[64], buf[1024];
    snprintf(path, sizeof(path), "/proc/%d/task/%d/children", pid, pid);
    FILE *f = fopen(path, "r");
    if (!f)
        return;
    size_t n = fread(buf, 1, sizeof(buf) - 1, f);
    fclose(f);
    buf[n] = 0;
    char *save = nullptr;
    for (char *tok = strtok_r(buf, " \n", &save); tok; tok = strtok_r(nullptr, " \n", &save))
        find_or_add(static_cast<pid_t>(atoi(tok)));
}

static void sample()
{
    add_children_of(getpid());
    for (int i = 0; i < g_nprocs; i++)
        add_children_of(g_procs[i].pid);
    for (int i = 0; i < g_nprocs; i++) {
        tracked *t = &g_procs[i];
        if (!t->own && !(t->own = runs_command(t->pid)))
            continue;
        char path[64], line[128];
        snprintf(path, sizeof(path), "/proc/%d/schedstat", t->pid);
        if (FILE *f = fopen(path, "r")) {
            long long ns;
            if (fscanf(f, "%lld", &ns) == 1 && ns > t->cpu_ns)
                t->cpu_ns = ns;
            fclose(f);
        }
        snprintf(path, sizeof(path), "/proc/%d/status", t->pid);
        if (FILE *f = fopen(path, "r")) {
            while (fgets(line, sizeof(line), f)) {
                long kb;
                if (sscanf(line, "VmHWM: %ld kB", &kb) == 1 && kb > t->hwm_kb)
                    t->hwm_kb = kb;
            }
            fclose(f);
        }
    }
}

int main(int argc, char **argv)
{
    const char *out_path = nullptr;
    int first = 1;
    if (argc > 2 && strcmp(argv[1], "-o") == 0) {
        out_path = argv[2];
        first = 3;
    }
    if (first >= argc) {
        fprintf(stderr, "usage: %s [-o FILE] CMD [ARGS...]\n", argv[0]);
        return 2;
    }
    if (prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0) {
        perror("prctl(PR_SET_CHILD_SUBREAPER)");
        return 2;
    }
    // Opened before the command runs: it may hide /tmp behind a mount.
    FILE *out = stderr;
    if (out_path && !(out = fopen(out_path, "w"))) {
        perror(out_path);
        return 2;
    }

    const char *base = strrchr(argv[first], '/');
    snprintf(g_comm, sizeof(g_comm), "%.15s", base ? base + 1 : argv[first]);

    long long t0 = now_us();
    pid_t pid = fork();
    if (pid < 0) {
        perror("fork");
        return 2;
    }
    if (pid == 0) {
        execvp(argv[first], argv + first);
        _exit(127);
    }

    int first_status = 0, procs = 0;
    for (;;) {
        int st;
        pid_t r = waitpid(-1, &st, WNOHANG);
        if (r < 0) {
            if (errno == EINTR)
                continue;
            break;  // ECHILD: the whole tree has been reaped
        }
        if (r == 0) {
            sample();
            struct timespec ts = {0, 2000000};
            nanosleep(&ts, nullptr);
            continue;
        }
        procs++;
        if (r == pid)
            first_status = st;
    }
    long long wall = now_us() - t0;

    struct rusage ru;
    getrusage(RUSAGE_CHILDREN, &ru);
    long long user = tv_us(ru.ru_utime), sys = tv_us(ru.ru_stime);
    int code = WIFEXITED(first_status) ? WEXITSTATUS(first_status) : 128 + WTERMSIG(first_status);
    long long own_ns = 0;
    long own_hwm = 0;
    for (int i = 0; i < g_nprocs; i++) {
        if (!g_procs[i].own)
            continue;
        own_ns += g_procs[i].cpu_ns;
        if (g_procs[i].hwm_kb > own_hwm)
            own_hwm = g_procs[i].hwm_kb;
    }
    fprintf(out,
            "rusage procs=%d user_us=%lld sys_us=%lld cpu_us=%lld maxrss_kb=%ld wall_us=%lld status=%d "
            "own_cpu_us=%lld own_hwm_kb=%ld\n",
            procs, user, sys, user + sys, ru.ru_maxrss, wall, code, own_ns / 1000, own_hwm);
    if (out != stderr)
        fclose(out);
    return code;
}
