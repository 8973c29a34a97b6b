// The detection cycle: probing passes, polling and the deadline (main runs
// the set-up that arms the timers).
#include "core/detect_cycle.h"

#include <type_traits>

#include "arp/arp_check.h"
#include "bridge/fdb.h"
#include "core/result_file.h"
#include "core/startup.h"
#include "dhcp/dhcp_sweep.h"
#include "registry/device_list.h"
#include "support/log.h"
#include "support/term_request.h"

static_assert(std::is_standard_layout_v<t_proto_detect_ctx>,
              "the timers are embedded and found back with container_of");

t_proto_detect_ctx proto_detect_ctx;

void uloop_proto_detect_start(struct uloop_timeout *timeout)
{
    // A stop requested from outside (during discovery, or while this timer
    // was due) ends the run before anything of the pass is done.
    term_act_if_requested();
    t_proto_detect_ctx *ctx = container_of(timeout, t_proto_detect_ctx, start_timer);
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: uloop_proto_detect_start!\n");

    // Ports to send the ARP announcement on: the named port whatever it has
    // found, or every port still without a server.
    t_device_list_head arp_list{};
    if (ctx->specified_dev != nullptr) {
        if (add_unique_device_inorder_to_list(&arp_list.list, ctx->specified_dev) == 0)
            arp_list.dev_num++;
    } else {
        for (t_device *dev = lan_devices.dev_hashmap_head, *next; dev != nullptr; dev = next) {
            next = static_cast<t_device *>(dev->hh.next);
            if (device_has_server(dev)) {
                LOG_MSG(LOG_LEVEL_DEBUG, "device:%s already has dhcp_dever, skip sending arp!\n",
                        dev->name);
                continue;
            }
            if (add_unique_device_inorder_to_list(&arp_list.list, dev) == 0)
                arp_list.dev_num++;
        }
    }
    LOG_MSG(LOG_LEVEL_DEBUG, "Overall %d devices ready to sending arp!\n", arp_list.dev_num);

    // The check only reports; whatever it leaves in the list is not used.
    if (find_target_ip_and_device_with_arp(&arp_list, nullptr) != 0)
        LOG_MSG(LOG_LEVEL_ERROR, "find_target_ip_and_device_with_arp failed, return null!\n");
    free_device_list(&arp_list.list);
    arp_list.dev_num = 0;

    if (ctx->specified_dev != nullptr) {
        if (lanprobe_for_specify_device(ctx->specified_dev) != 0) {
            LOG_MSG(LOG_LEVEL_ERROR, "Error sending dhcp discovery packet via dev:%s\n",
                    ctx->specified_dev->name);
            kill_self();
            return;
        }
    } else {
        update_brlan_valid_dev(lan_devices.dev_hashmap_head);
        if (lanprobe_for_all_devices(&lan_devices) != 0) {
            LOG_MSG(LOG_LEVEL_ERROR, "Error sending dhcp discovery packet\n");
            kill_self();
            return;
        }
    }
    uloop_timeout_set(&ctx->poll_timer, DETECT_POLL_INTERVAL_MS);
}

void uloop_proto_detect_end(struct uloop_timeout *timeout)
{
    term_act_if_requested();
    t_proto_detect_ctx *ctx = container_of(timeout, t_proto_detect_ctx, poll_timer);
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: uloop_proto_detect_end!\n");

    // elapsed_ms counts polls, not wall time: it starts after the ARP check.
    ctx->elapsed_ms += DETECT_POLL_INTERVAL_MS;
    int rc = process_dhcp_discovery_all(ctx->elapsed_ms > ctx->timeout_ms ? 1 : 0);

    if (rc < 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Error receiving dhcp discovery packet\n");
        ctx->elapsed_ms = 0;
        uloop_timeout_set(&ctx->start_timer, 0);
    } else if (rc == 0) {
        LOG_MSG(LOG_LEVEL_DEBUG, "dhcp discovery packet not fully received\n");
        uloop_timeout_set(&ctx->poll_timer, DETECT_POLL_INTERVAL_MS);
    } else if (rc == 97 || rc == 98) {
        LOG_MSG(LOG_LEVEL_INFO, "dhcp discovery packet all received offer\n");
        ctx->elapsed_ms = 0;
        write_detect_result(LANPROBE_RESULT_FILE);
        LOG_MSG(LOG_LEVEL_INFO, "Detection over beause all devices have dhcp server!\n");
        kill_self();
    } else {
        LOG_MSG(LOG_LEVEL_DEBUG, "dhcp discovery packet timeout!\n");
        ctx->elapsed_ms = 0;
        uloop_timeout_set(&ctx->start_timer, 0);
    }
}

void uloop_proto_detect_finish(struct uloop_timeout *)
{
    term_act_if_requested();
    int rc = process_dhcp_discovery_all(1);
    if (rc < 0)
        LOG_MSG(LOG_LEVEL_ERROR, "Error receiving dhcp discovery packet\n");
    else if (rc == 0)
        LOG_MSG(LOG_LEVEL_DEBUG, "dhcp discovery packet not fully received\n");
    else if (rc == 97)
        LOG_MSG(LOG_LEVEL_INFO, "dhcp discovery packet all received offer\n");
    else
        LOG_MSG(LOG_LEVEL_DEBUG, "dhcp discovery packet timeout!\n");

    write_detect_result(LANPROBE_RESULT_FILE);
    LOG_MSG(LOG_LEVEL_INFO, "Detection over!\n");
    kill_self();
}
