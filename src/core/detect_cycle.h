// One detection on the event loop: the start timer runs a probing pass, the
// poll timer judges it every 200 ms, the deadline timer ends everything.
#ifndef LANPROBE_CORE_DETECT_CYCLE_H
#define LANPROBE_CORE_DETECT_CYCLE_H

#include <stdint.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "registry/device_table.h"

#define DETECT_DEFAULT_TIMEOUT_MS 6000
#define DETECT_POLL_INTERVAL_MS 200
#define DETECT_DEADLINE_MS 13000

struct t_proto_detect_ctx {
    uint32_t timeout_ms;
    t_device *specified_dev;
    struct uloop_timeout start_timer;
    struct uloop_timeout poll_timer;
    struct uloop_timeout finish_timer;
    uint32_t elapsed_ms;
};

extern t_proto_detect_ctx proto_detect_ctx;

void uloop_proto_detect_start(struct uloop_timeout *timeout);
void uloop_proto_detect_end(struct uloop_timeout *timeout);
void uloop_proto_detect_finish(struct uloop_timeout *timeout);

#endif
