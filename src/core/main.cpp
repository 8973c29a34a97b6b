// lanprobe: find out, per LAN port of br-lan, whether a DHCP server answers
// behind it and what it offers.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "core/detect_cycle.h"
#include "registry/lan_discovery.h"
#include "core/startup.h"
#include "registry/device_table.h"
#include "support/log.h"
#include "support/term_request.h"

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

    // The detection set-up: timers, the LAN ports, the time-out, the -v port.
    t_proto_detect_ctx *ctx = &proto_detect_ctx;
    ctx->start_timer.cb = uloop_proto_detect_start;
    ctx->poll_timer.cb = uloop_proto_detect_end;
    ctx->finish_timer.cb = uloop_proto_detect_finish;
    LOG_MSG(LOG_LEVEL_DEBUG, "init over\n");

    if (init_all_lan_device(&lan_devices) <= 0) {
        LOG_MSG(LOG_LEVEL_CRITICAL, "init_all_eth_device failed!\n");
        // The SIGTERM handler cleans up and exits 0; the result file keeps
        // its placeholder because nothing was detected.
        term_mark_own();
        if (raise(SIGTERM) != 0)
            exit(1);
        return 0;
    }

    ctx->timeout_ms = cmd_option.time_ms != 0 ? cmd_option.time_ms : DETECT_DEFAULT_TIMEOUT_MS;

    if (cmd_option.device[0] != '\0') {
        ctx->specified_dev = find_device(lan_devices.dev_hashmap_head, cmd_option.device);
        if (ctx->specified_dev == nullptr)
            LOG_MSG(LOG_LEVEL_ERROR,
                    "Device:%s doesn't existed in network.lan! Detect in all lans in default!\n",
                    cmd_option.device);
    }

    // The deadline counts from here, after discovery, not from process start.
    uloop_timeout_set(&ctx->start_timer, 0);
    uloop_timeout_set(&ctx->finish_timer, DETECT_DEADLINE_MS);

    uloop_run();
    release_all_resource();
    return 0;
}
