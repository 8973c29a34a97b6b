// Command line, console feedback, result-file placeholder, SIGTERM handling and
// the final cleanup.
#include "core/startup.h"

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "support/log.h"
#include "support/term_request.h"

t_cmd_option cmd_option;

namespace {

// The console line is what `echo '<text>' > /dev/console` run through a shell
// prints.  The command around the text costs this many bytes of the budget.
constexpr size_t kEchoPrefixLen = sizeof("echo '") - 1;
constexpr size_t kEchoSuffixLen = sizeof("' > " LANPROBE_CONSOLE_PATH) - 1;
constexpr size_t kEchoOverhead = kEchoPrefixLen + kEchoSuffixLen;

// Large enough for the longest text that can pass the usage budget, plus the
// newline.
constexpr size_t kConsoleBufLen = CONSOLE_USAGE_CMD_MAX + 2;

constexpr const char kUsageFormat[] =
    "Usage: %s -d/--debug [0(emergy)~7(debug)] to specify the debug level.\n"
    "\t\t-t/--time_ms [1000~8000] to specify the timeout.\n"
    "\t\t-v/--device [eth*] to specify the device to detect, or will detect in all lan devices in "
    "default";

constexpr struct option kLongOptions[] = {
    {"debug", required_argument, nullptr, 'd'},
    {"help", no_argument, nullptr, 'h'},
    {"device", required_argument, nullptr, 'v'},
    {"time_ms", required_argument, nullptr, 't'},
    {nullptr, 0, nullptr, 0},
};

const char *prog_name(const char *prog)
{
    return prog ? prog : "lanprobe";
}

bool write_all(int fd, const char *buf, size_t len)
{
    while (len > 0) {
        ssize_t n = write(fd, buf, len);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

int write_console_message(const char *console, size_t cmd_max, const char *fmt, ...)
{
    if (!console || !fmt)
        return -1;

    char line[kConsoleBufLen];
    va_list ap;
    va_start(ap, fmt);
    int len = vsnprintf(line, sizeof(line), fmt, ap);
    va_end(ap);
    if (len < 0)
        return -1;

    // A shell would get the command cut at cmd_max bytes: the closing quote
    // (or at least the redirection) is lost and nothing reaches the console.
    size_t text_len = static_cast<size_t>(len);
    if (text_len + kEchoOverhead > cmd_max || text_len + 1 > sizeof(line))
        return -1;
    line[text_len] = '\n';

    // Opened the way a shell's ">" opens it.
    int fd = open(console, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        return -1;
    bool ok = write_all(fd, line, text_len + 1);
    close(fd);
    return ok ? 0 : -1;
}

void print_usage_on(const char *console, const char *prog)
{
    write_console_message(console, CONSOLE_USAGE_CMD_MAX, kUsageFormat, prog_name(prog));
}

void print_help_hint_on(const char *console, const char *prog)
{
    write_console_message(console, CONSOLE_CMD_MAX, "Try: %s --help for more information!",
                          prog_name(prog));
}

void print_usage(const char *prog)
{
    print_usage_on(LANPROBE_CONSOLE_PATH, prog);
}

void print_help_hint(const char *prog)
{
    print_help_hint_on(LANPROBE_CONSOLE_PATH, prog);
}

int parse_cmd_option_on(const char *console, int argc, char **argv, t_cmd_option *option)
{
    int go_on = 1;
    int c;
    while ((c = getopt_long(argc, argv, "d:hv:t:", kLongOptions, nullptr)) != -1) {
        switch (c) {
        case 'd': {
            int level = atoi(optarg);
            if (level >= CMD_DEBUG_LEVEL_MIN && level <= CMD_DEBUG_LEVEL_MAX) {
                option->debug_level = static_cast<uint32_t>(level);
                log_init();
                write_console_message(console, CONSOLE_CMD_MAX,
                                      "Success set lanprobe debug level to %s!", optarg);
            } else {
                write_console_message(console, CONSOLE_CMD_MAX,
                                      "Invalid option -d %s, Run as default critical debug level!",
                                      optarg);
            }
            go_on = 1;
            break;
        }
        case 't': {
            int ms = atoi(optarg);
            if (ms >= CMD_TIME_MS_MIN && ms <= CMD_TIME_MS_MAX) {
                option->time_ms = static_cast<uint32_t>(ms);
                write_console_message(console, CONSOLE_CMD_MAX, "Success set lanprobe timeout to %dms!",
                                      ms);
            } else {
                write_console_message(console, CONSOLE_CMD_MAX,
                                      "Invalid option -t %d, should in range (0,20000]!", ms);
            }
            go_on = 1;
            break;
        }
        case 'v':
            // Keep the field terminated: at most 31 characters of the name.
            memset(option->device, 0, sizeof(option->device));
            strncpy(option->device, optarg, sizeof(option->device) - 1);
            write_console_message(console, CONSOLE_CMD_MAX, "Success specify dhcp detect device: %s!",
                                  optarg);
            go_on = 1;
            break;
        case 'h':
            print_usage_on(console, argc > 0 ? argv[0] : nullptr);
            go_on = 0;
            break;
        default:
            // getopt_long has already said what was wrong on stderr.
            print_help_hint_on(console, argc > 0 ? argv[0] : nullptr);
            go_on = 0;
            break;
        }
    }
    return go_on;
}

int parse_cmd_option(int argc, char **argv, t_cmd_option *option)
{
    return parse_cmd_option_on(LANPROBE_CONSOLE_PATH, argc, argv, option);
}

void init_result_file(const char *path)
{
    FILE *fp = fopen(path, "w");
    if (!fp)
        return;
    fprintf(fp, "time %d", RESULT_PLACEHOLDER_SECONDS);
    fclose(fp);
}

// The pipe of the stop request, watched by the event loop: an outside SIGTERM
// that arrives while the loop waits is acted on at once.
static struct uloop_fd term_ufd;

static void on_term_pipe(struct uloop_fd *, unsigned int)
{
    term_request_drain();
    term_act_if_requested();
}

void init_term_deferral(void)
{
    term_ufd.fd = term_request_fd();
    term_ufd.cb = on_term_pipe;
    if (term_ufd.fd >= 0 && uloop_fd_add(&term_ufd, ULOOP_READ) != 0)
        term_ufd.fd = -1;
}

static void release_term_deferral(void)
{
    if (term_ufd.fd >= 0)
        uloop_fd_delete(&term_ufd);
    term_ufd.fd = -1;
    term_request_close();
}

void release_all_resource(void)
{
    if (lan_devices.dev_hashmap_head)
        release_all_device(&lan_devices.dev_hashmap_head);
    release_term_deferral();
    uloop_done();
    log_done();
}

// Our own SIGTERM (kill_self, the raise after a failed discovery, or the
// daemon acting on a stop request) is sent from a point where nothing is half
// done, and the cleanup runs here at once.  A SIGTERM from outside may arrive
// anywhere: it is only noted, async-signal-safely, and acted on by the daemon
// (see support/term_request.h).
void signal_kill(int sig)
{
    if (!term_is_own()) {
        term_request_note();
        return;
    }
    LOG_MSG(LOG_LEVEL_ERROR, "[lanprobe(pid:%d)] receive signal:%d, exit\n", static_cast<int>(getpid()),
            sig);
    release_all_resource();
    exit(0);
}

void init_signal(void)
{
    // The pipe exists before the handler can run.  Installed before
    // uloop_init, so uloop leaves SIGTERM to us and keeps only SIGINT for
    // ending its loop.
    term_request_init();
    signal(SIGTERM, signal_kill);
}

void kill_self(void)
{
    term_mark_own();
    kill(getpid(), SIGTERM);
}
