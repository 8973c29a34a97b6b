// The interface table and the ARP-entry table, both plain uthash tables in the
// default configuration.  The interface table is keyed by the record's own name
// field (HASH_ADD_KEYPTR), the ARP-entry table by the 6 bytes of mac.
#include "registry/device_table.h"

#include <stdlib.h>
#include <string.h>

#include "support/log.h"
#include "support/result_codes.h"

t_lan_devices lan_devices;
t_arp_entry *arp_table_hashmap_head;

bool device_has_server(const t_device *dev)
{
    if (!dev)
        return false;
    for (uint8_t b : dev->offer.mac)
        if (b != 0)
            return true;
    return false;
}

t_device *create_new_device(const char *name)
{
    if (!name) {
        LOG_MSG(LOG_LEVEL_ERROR, "Null device name pointer!\n");
        return nullptr;
    }
    t_device *dev = static_cast<t_device *>(malloc(sizeof(t_device)));
    if (!dev) {
        LOG_MSG(LOG_LEVEL_ERROR, "Malloc new device failed!\n");
        return nullptr;
    }
    memset(dev, 0, sizeof(*dev));
    // A name of 32 characters or more would fill the whole field and leave it
    // unterminated; the key length (strlen) and every "%s" of the name would
    // then run into the next field.  Keep at most 31 characters instead.  Real
    // interface names are at most 15 characters, so this only guards against
    // bad input.
    strncpy(dev->name, name, sizeof(dev->name) - 1);
    dev->port = -1;
    dev->order = -1;
    return dev;
}

int check_dev_already_add(t_device *head, const char *name)
{
    if (!head) {
        LOG_MSG(LOG_LEVEL_INFO, "dev_hashmap_head input is NULL!\n");
        return 0;
    }
    if (!name || name[0] == '\0') {
        LOG_MSG(LOG_LEVEL_ERROR, "Invalid dev_name!\n");
        return 0;
    }
    t_device *found = nullptr;
    HASH_FIND(hh, head, name, strlen(name), found);
    return found ? 1 : 0;
}

int add_device(t_device **head, t_device *dev)
{
    if (!head) {
        LOG_MSG(LOG_LEVEL_ERROR, "Invalid dev_hashmap_head input!\n");
        return LP_ERR_INVALID;
    }
    if (!dev) {
        LOG_MSG(LOG_LEVEL_ERROR, "Invalid device input!\n");
        return LP_ERR_INVALID;
    }
    if (dev->name[0] == '\0') {
        LOG_MSG(LOG_LEVEL_ERROR, "Invalid dev_name!\n");
        return LP_ERR_INVALID;
    }
    if (check_dev_already_add(*head, dev->name) == 1) {
        LOG_MSG(LOG_LEVEL_ERROR, "Device already existed!\n");
        return LP_ERR_EXISTS;
    }
    // The key points into the record itself; the name never changes once the
    // record is in the table.
    HASH_ADD_KEYPTR(hh, *head, dev->name, strlen(dev->name), dev);
    return LP_OK;
}

t_device *find_device(t_device *head, const char *name)
{
    if (!head) {
        LOG_MSG(LOG_LEVEL_INFO, "Invalid dev_hashmap_head input!\n");
        return nullptr;
    }
    if (!name || name[0] == '\0') {
        LOG_MSG(LOG_LEVEL_ERROR, "Invalid dev_name!\n");
        return nullptr;
    }
    t_device *found = nullptr;
    HASH_FIND(hh, head, name, strlen(name), found);
    return found;
}

int add_br_device(const char *name, int port_no, int position, void *head)
{
    t_device *dev = create_new_device(name);
    if (!dev) {
        LOG_MSG(LOG_LEVEL_ERROR, "Malloc new device failed!\n");
        return LP_ERR_NOMEM;
    }
    // Low 8 bits taken as signed, so the bridge's "unknown" (-1) stays -1.
    dev->order = static_cast<int8_t>(position);
    dev->port_no = static_cast<int8_t>(port_no);

    int rc = add_device(static_cast<t_device **>(head), dev);
    if (rc != 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Add new device failed(%d)!\n", rc);
        free(dev);
        return rc;
    }
    LOG_MSG(LOG_LEVEL_DEBUG, "Parse lan devices name: %s\n", name);
    return LP_OK;
}

int release_all_device(t_device **head)
{
    if (!head || !*head) {
        LOG_MSG(LOG_LEVEL_ERROR, "Invalid dev_hashmap_head input!\n");
        return LP_ERR_INVALID;
    }
    t_device *cur = nullptr;
    t_device *tmp = nullptr;
    HASH_ITER(hh, *head, cur, tmp) {
        HASH_DEL(*head, cur);
        free(cur);
    }
    *head = nullptr;
    return LP_OK;
}

t_arp_entry *find_arp_entry(t_arp_entry *head, const uint8_t *mac)
{
    if (!head) {
        LOG_MSG(LOG_LEVEL_INFO, "arp_table_hashmap_head input is NULL!\n");
        return nullptr;
    }
    if (!mac) {
        LOG_MSG(LOG_LEVEL_ERROR, "Invalid mac input!\n");
        return nullptr;
    }
    t_arp_entry *found = nullptr;
    HASH_FIND(hh, head, mac, MAC_LEN, found);
    return found;
}

unsigned int get_arp_entry_count(t_arp_entry *head)
{
    if (!head)
        return 0;
    return HASH_COUNT(head);
}

int remove_arp_entry(t_arp_entry **head, const uint8_t *mac)
{
    if (!head || !*head) {
        LOG_MSG(LOG_LEVEL_ERROR, "Invalid arp_table_hashmap_head input!\n");
        return LP_ERR_INVALID;
    }
    if (!mac) {
        LOG_MSG(LOG_LEVEL_ERROR, "Invalid mac input!\n");
        return LP_ERR_INVALID;
    }
    t_arp_entry *entry = find_arp_entry(*head, mac);
    if (!entry) {
        LOG_MSG(LOG_LEVEL_ERROR, "Arp entry:%02X-%02X-%02X-%02X-%02X-%02X doesn't existed!\n", mac[0],
                mac[1], mac[2], mac[3], mac[4], mac[5]);
        return LP_ERR_NOT_FOUND;
    }
    HASH_DEL(*head, entry);
    free(entry);
    return LP_OK;
}
