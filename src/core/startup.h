// Process start-up: the command line, the result-file placeholder, the SIGTERM
// handler and the cleanup with which every run ends.
#ifndef LANPROBE_CORE_STARTUP_H
#define LANPROBE_CORE_STARTUP_H

#include <stddef.h>
#include <stdint.h>

#include "registry/device_table.h"

#define LANPROBE_RESULT_FILE "/tmp/lanprobe_result"
#define LANPROBE_CONSOLE_PATH "/dev/console"

// Room for the console command "echo '<message>' > /dev/console": 255 bytes of
// text for ordinary messages, 511 for the usage text.
#define CONSOLE_CMD_MAX 255
#define CONSOLE_USAGE_CMD_MAX 511

#define CMD_DEBUG_LEVEL_MIN 1
#define CMD_DEBUG_LEVEL_MAX 7
#define CMD_TIME_MS_MIN 1
#define CMD_TIME_MS_MAX 20000

#define RESULT_PLACEHOLDER_SECONDS 19

struct t_cmd_option {
    uint32_t debug_level;        // log level to use; 2 unless -d gave 1..7
    uint32_t time_ms;            // DHCP probe time-out, 0 = none given
    char device[IFNAME_FIELD_LEN];  // -v interface, empty = all interfaces
};

// Filled by main before the fork, read by the child.
extern t_cmd_option cmd_option;

// Writes one console line as `echo '<text>' > <console>` would: the text and a
// newline, nothing interpreted.  A text whose echo command would exceed
// cmd_max bytes prints nothing.  Returns 0 when the line was written.
int write_console_message(const char *console, size_t cmd_max, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

// Non-zero: go on; zero: the caller stops with exit status 1.
int parse_cmd_option(int argc, char **argv, t_cmd_option *option);
void print_usage(const char *prog);
void print_help_hint(const char *prog);

// The same, with the console path as a parameter (the daemon always passes
// /dev/console through the forms above).
int parse_cmd_option_on(const char *console, int argc, char **argv, t_cmd_option *option);
void print_usage_on(const char *console, const char *prog);
void print_help_hint_on(const char *console, const char *prog);

void init_result_file(const char *path);
void init_signal(void);
void signal_kill(int sig);
void kill_self(void);
// Lets the event loop wake up for an outside SIGTERM (call after uloop_init).
void init_term_deferral(void);
void release_all_resource(void);

#endif
