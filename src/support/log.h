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

#define LOG_WORD_LOG_LEVEL_CRITICAL "Critical"
#define LOG_WORD_LOG_LEVEL_ERROR "Error"
#define LOG_WORD_LOG_LEVEL_WARNING "Warning"
#define LOG_WORD_LOG_LEVEL_NOTICE "Notice"
#define LOG_WORD_LOG_LEVEL_INFO "Info"
#define LOG_WORD_LOG_LEVEL_DEBUG "Debug"

#define LANPROBE_LOG_LOG_FILE "/tmp/lanprobe.log"
#define LANPROBE_LOG_CONSOLE "/dev/console"

// The whole prefixed format is one string literal built here, at compile time.
// get_uptime() is an argument, so it is called even when the level filter then
// drops the message: every log call costs one sysinfo().
#define LOG_MSG(level, fmt, ...)                                                              \
    log_print(level, "[lanprobe][" LOG_WORD_##level "][%ld][%s:%d]: " fmt, get_uptime(),      \
              __func__, __LINE__, ##__VA_ARGS__)

void log_print(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));
long get_uptime(void);
void log_set_level(int level);
int log_get_level(void);
void log_init(void);
void log_restore_stdio(void);
void log_done(void);

#endif
