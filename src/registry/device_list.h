// Counted, ordered lists of interface records (sorted by t_device::order).
// A list owns its nodes only, never the records.
#ifndef LANPROBE_REGISTRY_DEVICE_LIST_H
#define LANPROBE_REGISTRY_DEVICE_LIST_H

#include <stdint.h>

#include "registry/device_table.h"

struct t_device_list {
    t_device *dev;
    t_device_list *prev;
    t_device_list *next;
};

struct t_device_list_head {
    uint8_t dev_num;  // kept by the callers
    t_device_list list;  // sentinel
};

int add_unique_device_inorder_to_list(t_device_list *list, t_device *dev);
int remove_unique_device_from_list(t_device_list *list, t_device *dev);
void free_device_list(t_device_list *list);
int check_device_in_list(t_device_list *list, t_device *dev);
int copy_list(t_device_list_head *dst, t_device_list_head *src);
int merge_two_list(t_device_list_head *dst, t_device_list_head *src);

#endif
