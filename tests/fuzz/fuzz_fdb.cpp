// The forwarding-database reader and candidate selection: the input becomes
// /sys/class/net/br-lan/brforward (a tmpfs over /sys/class/net in the
// sandbox), which update_brlan_valid_dev reads chunk by chunk through its
// copy in the private /tmp.
//
// Input: 4 bytes, the bridge port numbers (signed 8 bits) of the interface
// records eth0..eth3, then the file contents.
#include <string.h>
#include <sys/stat.h>

#include "bridge/fdb.h"
#include "fuzz/fuzz_env.h"
#include "registry/device_table.h"

namespace {

constexpr size_t kMaxInput = 64 * 1024;
constexpr int kPorts = 4;
const char *const kPortNames[kPorts] = {"eth0", "eth1", "eth2", "eth3"};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // A network namespace of its own too: should the copy fail, the reader
    // falls back to the bridge ioctl, which must never reach the host's bridges.
    fuzzenv::enter_sandbox(fuzzenv::SANDBOX_NET | fuzzenv::SANDBOX_SYS_NET);
    fuzzenv::quiet_log_output();
    if (mkdir("/sys/class/net/" FDB_BRIDGE_NAME, 0755) != 0) {
        perror("mkdir br-lan");
        exit(2);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < kPorts || size > kMaxInput)
        return 0;
    const uint8_t *file = data + kPorts;
    const size_t file_len = size - kPorts;
    FUZZ_CHECK(fuzzenv::write_file("/sys/class/net/" FDB_BRIDGE_NAME "/brforward", file, file_len));
    const int fds_before = fuzzenv::open_fd_count();

    t_device *head = nullptr;
    for (int i = 0; i < kPorts; i++) {
        t_device *dev = create_new_device(kPortNames[i]);
        FUZZ_CHECK(dev != nullptr && add_device(&head, dev) == 0);
        dev->port_no = static_cast<int8_t>(data[i]);
        dev->connected = 1;  // cleared by the reader before anything else
    }

    int rc = update_brlan_valid_dev(head);

    // Whole 16-byte records only; a trailing partial record is not read.
    const size_t records = file_len / FDB_ENTRY_SIZE;
    FUZZ_CHECK(rc == (records > 0 ? 0 : -83));
    // The oracle: a record is selected exactly when a non-local entry carries
    // its port number (only 0..127 can match, the record's field is signed).
    // Each entry selects the first record in table order with that number.
    bool expect[kPorts] = {};
    for (size_t r = 0; r < records; r++) {
        t_fdb_entry e;
        memcpy(&e, file + r * FDB_ENTRY_SIZE, sizeof(e));
        if (e.is_local)
            continue;
        for (int i = 0; i < kPorts; i++) {
            if (static_cast<int8_t>(data[i]) == static_cast<int>(e.port_no)) {
                expect[i] = true;
                break;
            }
        }
    }
    int i = 0;
    for (t_device *d = head; d; d = static_cast<t_device *>(d->hh.next), i++)
        FUZZ_CHECK(d->connected == (expect[i] ? 1 : 0));
    release_all_device(&head);

    FUZZ_CHECK(!fuzzenv::file_exists(FDB_COPY_PATH));
    FUZZ_CHECK(fuzzenv::open_fd_count() == fds_before);
    return 0;
}
