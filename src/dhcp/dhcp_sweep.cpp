// The DHCP probe pass: one context per candidate port, one DISCOVER each, then
// polled until every port answered or the pass timed out.
#include "dhcp/dhcp_sweep.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>

#include "support/if_query.h"
#include "support/log.h"
#include "support/result_codes.h"

int lanprobe_for_all_devices(t_lan_devices *devices)
{
    t_device_list_head dev_list;
    memset(&dev_list, 0, sizeof(dev_list));

    t_device *dev = devices ? devices->dev_hashmap_head : nullptr;
    while (dev) {
        t_device *next = static_cast<t_device *>(dev->hh.next);
        if (dev->connected != 1) {
            LOG_MSG(LOG_LEVEL_DEBUG, "device:%s has NO device connected in, skip it!\n", dev->name);
        } else if (device_has_server(dev)) {
            LOG_MSG(LOG_LEVEL_DEBUG, "device:%s already has dhcp_dever, skip it!\n", dev->name);
        } else if (add_unique_device_inorder_to_list(&dev_list.list, dev) == 0) {
            dev_list.dev_num++;
        }
        dev = next;
    }

    LOG_MSG(LOG_LEVEL_DEBUG, "Overall %d devices ready to run dhcp detect\n", dev_list.dev_num);
    if (dev_list.dev_num == 0) {
        LOG_MSG(LOG_LEVEL_INFO, "No actual device need detected, skip dhcp detect!\n");
    } else if (send_dhcp_discovery_all(&dev_list) == 0) {
        LOG_MSG(LOG_LEVEL_DEBUG, "Overall %d devices Send dhcp discovery success!\n",
                dev_list.dev_num);
    } else {
        LOG_MSG(LOG_LEVEL_ERROR, "Error sending dhcp discovery packet\n");
    }

    free_device_list(&dev_list.list);
    dev_list.dev_num = 0;
    return 0;
}

int lanprobe_for_specify_device(t_device *dev)
{
    t_device_list_head dev_list;
    memset(&dev_list, 0, sizeof(dev_list));
    int ret = 0;

    if (!dev) {
        LOG_MSG(LOG_LEVEL_ERROR, "Null devive specified!\n");
        ret = LP_ERR_INVALID;
    } else if (device_has_server(dev)) {
        // The detection cycle ends the process on this answer; the message
        // has no newline of its own.
        LOG_MSG(LOG_LEVEL_WARNING,
                "device:%s already has dhcp_dever, skip it, shouldn't get here as specify device, should get suicide!",
                dev->name);
        ret = LP_ERR_INVALID;
    } else {
        // A named port is probed whether or not the bridge saw a host behind it.
        if (add_unique_device_inorder_to_list(&dev_list.list, dev) == 0)
            dev_list.dev_num++;
        LOG_MSG(LOG_LEVEL_DEBUG, "device:%s ready to run dhcp detect\n", dev->name);
        if (send_dhcp_discovery_all(&dev_list) != 0)
            LOG_MSG(LOG_LEVEL_ERROR, "Error sending dhcp discovery packet in dev:%s\n", dev->name);
    }

    free_device_list(&dev_list.list);
    dev_list.dev_num = 0;
    return ret;
}

int send_dhcp_discovery_all(t_device_list_head *dev_list)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: send_dhcp_discovery_all!\n");

    if (!dev_list || dev_list->dev_num == 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "invalid parameters! Send failed!\n");
        return LP_ERR_INVALID;
    }

    if (lanprobe_handle.lanprobe_array) {
        LOG_MSG(LOG_LEVEL_NOTICE, "Last time handle not release, release it before resend!\n");
        release_lanprobe_handle(&lanprobe_handle);
    }

    uint32_t br_ip = 0;
    uint32_t br_netmask = 0;
    uint8_t br_mac[MAC_LEN] = {0};
    if (get_if_ip_netmask_mac("br-lan", &br_ip, &br_netmask, br_mac) != 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Couldn't get br-lan ip, netmask, mac!\n");
        return LP_ERR_QUERY;
    }
    memcpy(lanprobe_handle.br_mac, br_mac, MAC_LEN);

    uint8_t count = dev_list->dev_num;
    lanprobe_ctx *array = static_cast<lanprobe_ctx *>(calloc(count, sizeof(lanprobe_ctx)));
    if (!array) {
        LOG_MSG(LOG_LEVEL_ERROR, "Failed to malloc %d lanprobe struct\n", count);
        return LP_ERR_NOMEM;
    }
    lanprobe_handle.lanprobe_array = array;
    lanprobe_handle.device_num = count;

    // Every socket is opened before the first DISCOVER goes out, so the
    // DISCOVERs then leave back to back in list order.
    t_device_list *node = dev_list->list.next;
    for (uint8_t i = 0; i < count; i++) {
        lanprobe_ctx *ctx = &array[i];
        if (!node || !node->dev) {
            LOG_MSG(LOG_LEVEL_ERROR, "Failed to load dhcp device!\n");
        } else if (init_dhcp_sockfd(ctx) != 0) {
            LOG_MSG(LOG_LEVEL_ERROR, "Failed to init DHCP socket in dev:%s\n", node->dev->name);
        } else {
            ctx->dev = node->dev;
            LOG_MSG(LOG_LEVEL_DEBUG, "DHCP Discovery packet sockfd init success in dev:%s\n",
                    node->dev->name);
        }
        node = node ? node->next : nullptr;
    }

    for (uint8_t i = 0; i < count; i++) {
        lanprobe_ctx *ctx = &array[i];
        if (!ctx->dev)
            continue;
        LOG_MSG(LOG_LEVEL_DEBUG, "Ready to send DHCP Discovery packet via dev:%s, Transaction ID: %#08x\n",
                ctx->dev->name, ctx->random_xid);
        if (send_dhcp_discovery_packet(ctx) != 0)
            LOG_MSG(LOG_LEVEL_ERROR, "Failed to send DHCP socket via dev:%s\n", ctx->dev->name);
        else
            LOG_MSG(LOG_LEVEL_DEBUG, "Send DHCP Discovery packet success via dev:%s\n",
                    ctx->dev->name);
    }
    // Ports that failed keep offered 0: the pass can then end only by its time-out.
    return 0;
}

// The findings just copied into a record, logged by the conclusion (op).
static void log_device_offer(const t_device *dev, const char *op)
{
    struct in_addr addr;
    const uint8_t *m = dev->offer.mac;
    addr.s_addr = dev->offer.pre_assigned_ip;
    LOG_MSG_AS(op, LOG_LEVEL_DEBUG, "dev:%s, IPADDR=%s, MAC=%02X-%02X-%02X-%02X-%02X-%02X\n",
               dev->name, inet_ntoa(addr), m[0], m[1], m[2], m[3], m[4], m[5]);
    addr.s_addr = dev->offer.gateway_ip;
    LOG_MSG_AS(op, LOG_LEVEL_DEBUG, "dev:%s, GATEWAY=%s\n", dev->name, inet_ntoa(addr));
    addr.s_addr = dev->offer.dns_ip;
    LOG_MSG_AS(op, LOG_LEVEL_DEBUG, "dev:%s, DNS_SERVER=%s\n", dev->name, inet_ntoa(addr));
}

static bool all_offered(const t_lanprobe_handle *handle)
{
    for (uint8_t i = 0; i < handle->device_num; i++)
        if (handle->lanprobe_array[i].offered != 1)
            return false;
    return true;
}

int process_dhcp_discovery_all(uint8_t timed_out)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: process_dhcp_discovery_all!\n");

    int code;
    if (!lanprobe_handle.lanprobe_array) {
        LOG_MSG(LOG_LEVEL_INFO, "dhcp detect array is null, no packet sent yet, treat as detect over!\n");
        code = LP_SWEEP_IDLE;
    } else if (lanprobe_handle.device_num == 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Should never happen, valid dhcp detect array while device count is 0!\n");
        code = LP_ERR_INVALID;
    } else if (timed_out) {
        code = all_offered(&lanprobe_handle) ? LP_SWEEP_ALL_ANSWERED : LP_SWEEP_TIMEOUT;
    } else if (!all_offered(&lanprobe_handle)) {
        return LP_SWEEP_WAITING;
    } else {
        code = LP_SWEEP_ALL_ANSWERED;
    }

    for (uint8_t i = 0; lanprobe_handle.lanprobe_array && i < lanprobe_handle.device_num; i++) {
        lanprobe_ctx *ctx = &lanprobe_handle.lanprobe_array[i];
        if (!ctx->dev)
            continue;
        LOG_MSG(LOG_LEVEL_DEBUG, "Processing dhcp offer in eth:%s\n", ctx->dev->name);
        if (ctx->offered == 1) {
            LOG_MSG(LOG_LEVEL_INFO, "dev:%s detect dhcp Service!\n", ctx->dev->name);
            // Copied whole: what this OFFER did not give becomes 0 in the record.
            ctx->dev->offer = ctx->offer;
            log_device_offer(ctx->dev, __func__);
        } else {
            LOG_MSG(LOG_LEVEL_DEBUG, "No dhcp Service detect in dev:%s yet!\n", ctx->dev->name);
        }
        if (ctx->ufd.fd > 0)
            close_probe_socket(ctx);
    }

    release_lanprobe_handle(&lanprobe_handle);
    return code;
}

void release_lanprobe_handle(t_lanprobe_handle *handle)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: release_lanprobe_handle!\n");

    if (!handle || !handle->lanprobe_array) {
        LOG_MSG(LOG_LEVEL_INFO, "Release null lanprobe_handle fail!\n");
        return;
    }
    if (handle->device_num == 0)
        LOG_MSG(LOG_LEVEL_ERROR, "lanprobe_handle not null but device_num=0, may cause unclosed socket fd \n");

    for (uint8_t i = 0; i < handle->device_num; i++) {
        lanprobe_ctx *ctx = &handle->lanprobe_array[i];
        if (ctx->ufd.fd > 0)
            close_probe_socket(ctx);
    }

    free(handle->lanprobe_array);
    LOG_MSG(LOG_LEVEL_DEBUG, "release lanprobe_handler success!\n");
    memset(handle, 0, sizeof(*handle));
}
