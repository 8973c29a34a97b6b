// Shared set-up of the fuzz targets: a private sandbox (mount and, where
// needed, network namespace) entered once at start-up, an input reader, and
// checks that abort the run so that libFuzzer keeps the input.
#ifndef LANPROBE_TESTS_FUZZ_FUZZ_ENV_H
#define LANPROBE_TESTS_FUZZ_FUZZ_ENV_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

// A violated invariant is a finding: report it and abort, which libFuzzer
// (and the corpus replay) treats as a crash.
#define FUZZ_CHECK(cond)                                                                    \
    do {                                                                                    \
        if (!(cond)) {                                                                      \
            fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
            abort();                                                                        \
        }                                                                                   \
    } while (0)

namespace fuzzenv {

enum : unsigned {
    SANDBOX_NET = 1,         // a network namespace of our own (only lo)
    SANDBOX_ETC_CONFIG = 2,  // a writable, empty /etc/config
    SANDBOX_SYS_NET = 4,     // a tmpfs over /sys/class/net
};

// Enters new mount (and optionally network) namespaces with a fresh tmpfs on
// /tmp and whatever else flags ask for.  Must run before any thread exists;
// exits the process when the sandbox cannot be built (the targets need root).
void enter_sandbox(unsigned flags);

// Sends log lines (standard output) to /dev/null and opens the level filter
// fully, so that every log call formats its arguments.  With FUZZ_SHOW_LOG=1
// in the environment the lines stay on standard output.
void quiet_log_output();

// Runs a shell command at set-up; exits the process when it fails.
void must_run(const char *cmd);

// Creates or replaces a file with the given bytes; false on failure.
bool write_file(const char *path, const uint8_t *data, size_t size);
bool file_exists(const char *path);

// Number of descriptors open in this process.
int open_fd_count();

// Consumes the fuzz input from the front.
class Reader {
public:
    Reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    size_t left() const { return size_ - pos_; }
    uint8_t u8()
    {
        return pos_ < size_ ? data_[pos_++] : 0;
    }
    uint16_t be16()
    {
        uint16_t hi = u8();
        return static_cast<uint16_t>((hi << 8) | u8());
    }
    // Up to n bytes (fewer at the end of the input); *got says how many.
    const uint8_t *take(size_t n, size_t *got)
    {
        *got = n < left() ? n : left();
        const uint8_t *p = data_ + pos_;
        pos_ += *got;
        return p;
    }

private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

}  // namespace fuzzenv

#endif
