// lanprobe: find out, per LAN port of br-lan, whether a DHCP server answers
// behind it and what it offers.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "core/detect_cycle.h"
#include "core/startup.h"
#include "registry/device_table.h"
#include "support/log.h"

int main(int argc, char **argv)
{
    cmd_option.debug_level = LOG_LEVEL_CRITICAL;
    if (!parse_cmd_option(argc, argv, &cmd_option))
        return 1;

    init_result_file(LANPROBE_RESULT_FILE);

    // Nothing buffered may be inherited by the child: the parent's exit would
    // write it once and the child a second time.
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        write_console_message(LANPROBE_CONSOLE_PATH, CONSOLE_CMD_MAX, "[lanprobe][Error] error fork!!!");
        exit(1);
    }
    if (pid > 0)
        exit(0);

    memset(&lan_devices, 0, sizeof(lan_devices));
    log_set_level(static_cast<int>(cmd_option.debug_level));
    init_signal();
    srand(static_cast<unsigned int>(time(nullptr)));
    uloop_init();
    init_term_deferral();

    init_detect_cycle();

    uloop_run();
    release_all_resource();
    return 0;
}
