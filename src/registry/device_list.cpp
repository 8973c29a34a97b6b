// Ordered interface lists: a sentinel-headed doubly linked chain sorted by the
// records' discovery order, so ports are always probed in the same order
// whatever order they were picked in.
#include "registry/device_list.h"

#include <stdlib.h>

#include "support/log.h"
#include "support/result_codes.h"

int add_unique_device_inorder_to_list(t_device_list *list, t_device *dev)
{
    if (list == nullptr || dev == nullptr)
        return LP_ERR_INVALID;

    // Stop after the last node whose order is <= ours: equal orders keep the
    // order in which they were added.  An earlier node of the same record can
    // only stand up to that place, so the duplicate test need not look further.
    t_device_list *cur = list;
    for (;;) {
        if (cur->dev == dev) {
            LOG_MSG(LOG_LEVEL_INFO, "dev:%s already in list!\n", dev->name);
            return LP_ERR_EXISTS;
        }
        if (cur->next == nullptr || cur->next->dev == nullptr || cur->next->dev->order > dev->order)
            break;
        cur = cur->next;
    }

    auto *node = static_cast<t_device_list *>(malloc(sizeof(t_device_list)));
    if (node == nullptr) {
        LOG_MSG(LOG_LEVEL_ERROR, "malloc new t_device_list for dev:%s failed!\n", dev->name);
        return LP_ERR_NOMEM;
    }
    node->dev = dev;
    node->prev = cur;
    node->next = cur->next;
    if (cur->next)
        cur->next->prev = node;
    cur->next = node;
    return LP_OK;
}

int remove_unique_device_from_list(t_device_list *list, t_device *dev)
{
    if (list == nullptr || dev == nullptr)
        return LP_ERR_INVALID;
    t_device_list *node = list->next;
    while (node != nullptr && node->dev != dev)
        node = node->next;
    if (node == nullptr)
        return LP_ERR_NOT_FOUND;
    node->prev->next = node->next;
    if (node->next)
        node->next->prev = node->prev;
    free(node);
    LOG_MSG(LOG_LEVEL_DEBUG, "Success remove dev:%s from list!\n", dev->name);
    return LP_OK;
}

void free_device_list(t_device_list *list)
{
    if (list == nullptr)
        return;
    t_device_list *node = list->next;
    while (node != nullptr) {
        t_device_list *next = node->next;
        free(node);
        node = next;
    }
    list->next = nullptr;
}

int check_device_in_list(t_device_list *list, t_device *dev)
{
    if (list == nullptr || dev == nullptr)
        return 0;
    for (t_device_list *node = list->next; node != nullptr; node = node->next)
        if (node->dev == dev)
            return 1;
    return 0;
}

int copy_list(t_device_list_head *dst, t_device_list_head *src)
{
    if (dst == nullptr || src == nullptr)
        return LP_ERR_INVALID;
    t_device_list *tail = &dst->list;
    while (tail->next != nullptr)
        tail = tail->next;
    for (t_device_list *node = src->list.next; node != nullptr; node = node->next) {
        auto *copy = static_cast<t_device_list *>(malloc(sizeof(t_device_list)));
        if (copy == nullptr)
            return LP_ERR_NOMEM;
        copy->dev = node->dev;
        copy->prev = tail;
        copy->next = nullptr;
        tail->next = copy;
        tail = copy;
        dst->dev_num++;
    }
    return LP_OK;
}

int merge_two_list(t_device_list_head *dst, t_device_list_head *src)
{
    if (dst != nullptr && src != nullptr) {
        for (t_device_list *node = src->list.next; node != nullptr; node = node->next)
            if (add_unique_device_inorder_to_list(&dst->list, node->dev) == LP_OK)
                dst->dev_num++;
        free_device_list(&src->list);
        src->dev_num = 0;
    }
    return LP_ERR_NOT_FOUND;
}
