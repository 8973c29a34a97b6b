// The command line: argv from the input (NUL-separated words, the first is
// argv[0]) through parse_cmd_option_on with /dev/null as the console.
//
// A valid -d opens the log sink and moves standard input, output and error
// onto it.  The sandbox's private /tmp holds /tmp/lanprobe.log as a link to
// /dev/null, so the sink is harmless; the descriptors are put back after each
// input (log_done), and sanitizer reports go to a copy of the real stderr
// taken at start-up, so a crash inside the parse is still reported.
#include <getopt.h>
#include <string.h>
#include <unistd.h>

#include "core/startup.h"
#include "fuzz/fuzz_env.h"
#include "support/log.h"

extern "C" void __sanitizer_set_report_fd(void *fd) __attribute__((weak));

namespace {

constexpr int kMaxArgs = 24;
constexpr size_t kMaxInput = 4096;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzzenv::enter_sandbox(0);
    if (symlink("/dev/null", LANPROBE_LOG_LOG_FILE) != 0) {
        perror("symlink " LANPROBE_LOG_LOG_FILE);
        exit(2);
    }
    if (__sanitizer_set_report_fd) {
        int report_fd = dup(2);
        __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<intptr_t>(report_fd)));
    }
    // getopt's complaints about unknown options would flood the fuzzer's own
    // output; they are libc's, not ours, so they are switched off.
    opterr = 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > kMaxInput)
        return 0;
    // One NUL-terminated copy; words are the NUL-separated pieces.
    char *text = static_cast<char *>(malloc(size + 1));
    memcpy(text, data, size);
    text[size] = '\0';
    char *argv[kMaxArgs + 1];
    int argc = 0;
    for (size_t i = 0; i <= size && argc < kMaxArgs;) {
        argv[argc++] = text + i;
        i += strlen(text + i) + 1;
    }
    argv[argc] = nullptr;

    const int fds_before = fuzzenv::open_fd_count();
    t_cmd_option opt;
    memset(&opt, 0, sizeof(opt));
    opt.debug_level = LOG_LEVEL_CRITICAL;
    optind = 0;  // full re-initialisation of getopt for every input
    int go_on = parse_cmd_option_on("/dev/null", argc, argv, &opt);
    log_done();

    FUZZ_CHECK(go_on == 0 || go_on == 1);
    FUZZ_CHECK(opt.debug_level >= CMD_DEBUG_LEVEL_MIN && opt.debug_level <= CMD_DEBUG_LEVEL_MAX);
    FUZZ_CHECK(opt.time_ms == 0 || (opt.time_ms >= CMD_TIME_MS_MIN && opt.time_ms <= CMD_TIME_MS_MAX));
    FUZZ_CHECK(memchr(opt.device, '\0', sizeof(opt.device)) != nullptr);
    // The sink and the saved descriptors are all closed again.
    FUZZ_CHECK(fuzzenv::open_fd_count() == fds_before);
    free(text);
    return 0;
}
