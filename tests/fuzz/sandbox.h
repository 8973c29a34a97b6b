// What every fuzz target shares: a private sandbox entered before the first
// input (LLVMFuzzerInitialize is defined here; new mount
// namespace, fresh /tmp and /etc/config; the targets need root), the log
// formatted in full but thrown away (FUZZ_SHOW_LOG=1 keeps it), a reader of
// the input, and checks that abort so that libFuzzer keeps the input.
#ifndef LANPROBE_TESTS_FUZZ_SANDBOX_H
#define LANPROBE_TESTS_FUZZ_SANDBOX_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#define FUZZ_CHECK(cond)                                                                    \
    do {                                                                                    \
        if (!(cond)) {                                                                      \
            fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
            abort();                                                                        \
        }                                                                                   \
    } while (0)

namespace fuzz {

void enter_sandbox();
// Descriptors open in this process: a target must not leave any behind.
int open_fds();

class Reader {
public:
    Reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    size_t left() const { return size_ - pos_; }
    uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint16_t be16() { return static_cast<uint16_t>(u8() << 8 | u8()); }
    // Up to n bytes, fewer at the end of the input (*got says how many).
    const uint8_t *take(size_t n, size_t *got)
    {
        *got = n < left() ? n : left();
        pos_ += *got;
        return data_ + pos_ - *got;
    }

private:
    const uint8_t *data_;
    size_t size_, pos_ = 0;
};

}  // namespace fuzz

#endif
