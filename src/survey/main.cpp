// lanprobe-survey: every DHCP server behind every port of the LAN bridge, and
// every host answering for the router's own address, in one short pass.
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <linux/if_ether.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/fd_guard.h"
#include "survey/report.h"

namespace {

const char kSysNet[] = "/sys/class/net";
const char kConfDir[] = "/etc/config";

int usage_error(const char *fmt, const char *arg)
{
    fputs("lanprobe-survey: ", stderr);
    fprintf(stderr, fmt, arg);
    fputs("\nusage: lanprobe-survey [-b BRIDGE] [-w MS] [-a MAC|IP]... [-A FILE] [-o FILE] [-j] [PORT]...\n",
          stderr);
    return STATUS_UNKNOWN;
}

int fail(const char *fmt, const char *arg)
{
    fputs("lanprobe-survey: ", stderr);
    fprintf(stderr, fmt, arg);
    fputc('\n', stderr);
    return STATUS_UNKNOWN;
}

// Temporary file beside the target, then rename: a reader sees the old
// document or the new one, never half of one.
bool write_atomically(const char *path, const char *text)
{
    size_t n = strlen(path);
    char *tmp = static_cast<char *>(malloc(n + 8));
    if (!tmp)
        return false;
    memcpy(tmp, path, n);
    memcpy(tmp + n, ".XXXXXX", 8);
    int fd = mkstemp(tmp);
    bool ok = fd >= 0;
    if (ok) {
        size_t len = strlen(text), done = 0;
        while (ok && done < len) {
            ssize_t w = write(fd, text + done, len - done);
            ok = w > 0;
            done += ok ? static_cast<size_t>(w) : 0;
        }
        ok = fchmod(fd, 0644) == 0 && ok;
        ok = close(fd) == 0 && ok && rename(tmp, path) == 0;
        if (!ok)
            unlink(tmp);
    }
    int e = errno;
    free(tmp);
    errno = e;
    return ok;
}

}  // namespace

int main(int argc, char **argv)
{
    const char *bridge = "br-lan";
    const char *out_path = nullptr;
    bool force_json = false;
    int window_ms = 4000;
    static Allowlist allow;
    int opt;
    while ((opt = getopt(argc, argv, "b:w:a:A:o:jh")) != -1) {
        switch (opt) {
        case 'b': bridge = optarg; break;
        case 'o': out_path = optarg; break;
        case 'j': force_json = true; break;
        case 'w': {
            char *end;
            long v = strtol(optarg, &end, 10);
            if (*optarg == '\0' || *end != '\0' || v < 1 || v > 600000)
                return usage_error("-w takes a window in milliseconds (1..600000), not '%s'", optarg);
            window_ms = static_cast<int>(v);
            break;
        }
        case 'a':
            if (!allow_add(&allow, optarg))
                return usage_error("-a takes a MAC or IPv4 address, not '%s'", optarg);
            break;
        case 'A': {
            int bad = 0;
            if (!allow_load(&allow, optarg, &bad))
                return fail("cannot read allowlist %s", optarg);
            if (bad) {
                char where[32];
                snprintf(where, sizeof where, "%d", bad);
                fprintf(stderr, "lanprobe-survey: %s: ", optarg);
                return fail("line %s is neither a MAC nor an IPv4 address", where);
            }
            break;
        }
        case 'h':
            usage_error("%s", "probes every port of a bridge for DHCP servers");
            return STATUS_OK;
        default: return usage_error("%s", "unknown option");
        }
    }

    static SurveyPort members[SURVEY_MAX_PORTS];
    int n_members = list_bridge_ports(kSysNet, bridge, members, SURVEY_MAX_PORTS);
    if (n_members < 0)
        return fail(errno == ENOENT || errno == ENODEV ? "no such bridge: %s" : "cannot list the ports of %s",
                    bridge);
    Survey s;
    memset(&s, 0, sizeof s);
    s.window_ms = window_ms;
    if (!read_router_info(kSysNet, bridge, &s.router))
        return fail("no such bridge: %s", bridge);
    static uint8_t own[(SURVEY_MAX_PORTS + 1) * 6];
    memcpy(own, s.router.bridge_mac, 6);
    for (int i = 0; i < n_members; ++i)
        memcpy(own + 6 * (i + 1), members[i].mac, 6);

    static PortProbe probes[SURVEY_MAX_PORTS];
    if (optind == argc) {
        for (int i = 0; i < n_members; ++i)
            probes[s.n++].port = members[i];
    } else {
        for (int a = optind; a < argc; ++a) {
            int i = 0;
            while (i < n_members && strcmp(members[i].name, argv[a]) != 0)
                ++i;
            if (i == n_members)
                return fail("%s is not a port of the bridge", argv[a]);
            if (s.n < SURVEY_MAX_PORTS)
                probes[s.n++].port = members[i];
        }
    }
    if (s.n == 0)
        return fail("%s has no ports", bridge);
    SurveyPort labelled[SURVEY_MAX_PORTS];
    for (int i = 0; i < s.n; ++i)
        labelled[i] = probes[i].port;
    read_switch_labels(kConfDir, labelled, s.n);
    for (int i = 0; i < s.n; ++i)
        probes[i].port = labelled[i];

    {
        FdGuard probe(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
        if (!probe.valid())
            return fail(errno == EPERM || errno == EACCES
                            ? "no permission for packet sockets (%s needs CAP_NET_RAW)"
                            : "cannot open a packet socket (%s)",
                        errno == EPERM || errno == EACCES ? "lanprobe-survey" : strerror(errno));
    }
    s.probes = probes;
    int rc = run_survey(&s);
    if (rc < 0)
        return fail("event loop: %s", strerror(-rc));
    int failed = 0;
    for (int i = 0; i < s.n; ++i)
        failed += probes[i].error != 0;
    if (failed == s.n)
        return fail("no port could be probed: %s", strerror(probes[0].error));

    SurveyView view = {&s, bridge, own, n_members + 1, &allow};
    SurveyStatus status = survey_status(view);
    if (!out_path && !force_json && isatty(STDOUT_FILENO)) {
        print_table(stdout, view);
        return status;
    }
    char *doc = survey_json(view);
    if (!doc)
        return fail("%s", "out of memory");
    bool ok = out_path ? write_atomically(out_path, doc) : fputs(doc, stdout) >= 0 && fflush(stdout) == 0;
    char why[300];
    snprintf(why, sizeof why, "%s: %s", out_path ? out_path : "standard output", strerror(errno));
    free(doc);
    if (!ok)
        return fail("cannot write %s", why);
    return status;
}
