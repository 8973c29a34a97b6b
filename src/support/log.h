// Levelled logging onto standard output, which may be redirected to the log
// sink (/tmp/lanprobe.log when it exists, else /dev/console).
#ifndef LANPROBE_SUPPORT_LOG_H
#define LANPROBE_SUPPORT_LOG_H

// Syslog severities; 0 and 1 have no word and silence everything.
#define LOG_LEVEL_CRITICAL 2
#define LOG_LEVEL_ERROR 3
#define LOG_LEVEL_WARNING 4
#define LOG_LEVEL_NOTICE 5
#define LOG_LEVEL_INFO 6
#define LOG_LEVEL_DEBUG 7

// The level's word in the prefix, looked up by the level's number.
#define LOG_WORD_2 "Critical"
#define LOG_WORD_3 "Error"
#define LOG_WORD_4 "Warning"
#define LOG_WORD_5 "Notice"
#define LOG_WORD_6 "Info"
#define LOG_WORD_7 "Debug"
#define LOG_WORD_(n) LOG_WORD_##n
#define LOG_WORD(level) LOG_WORD_(level)

#define LANPROBE_LOG_LOG_FILE "/tmp/lanprobe.log"
#define LANPROBE_LOG_CONSOLE "/dev/console"

// The whole prefixed format is one string literal built here, at compile time.
// get_uptime() is an argument, so it is called even when the level filter then
// drops the message: every log call costs one sysinfo().
//
// A line names the operation it belongs to.  Code that logs on behalf of an
// operation (a piece of it moved into a function of its own) is handed that
// operation's name and logs with LOG_MSG_AS, so the line reads the same as
// if the operation had logged it itself.
#define LOG_MSG_AS(op, level, fmt, ...)                                                         \
    log_print(level, "[lanprobe][" LOG_WORD(level) "][%ld][%s:%d]: " fmt, get_uptime(), op,     \
              __LINE__, ##__VA_ARGS__)
#define LOG_MSG(level, fmt, ...) LOG_MSG_AS(__func__, level, fmt, ##__VA_ARGS__)

void log_print(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));
long get_uptime(void);
void log_set_level(int level);
int log_get_level(void);
void log_init(void);
void log_restore_stdio(void);
void log_done(void);

#endif
