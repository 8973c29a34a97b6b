// Ordered interface lists: sort order, duplicates, removal and the helpers.
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "registry/device_list.h"
#include "support/log.h"
#include "support/netns.h"
#include "support/result_codes.h"

namespace {

using lptest::count_of;

// Records with names d0, d1, ... and the given orders.
std::vector<t_device> make_devices(const std::vector<int> &orders)
{
    std::vector<t_device> devs(orders.size());
    for (size_t i = 0; i < orders.size(); i++) {
        devs[i] = t_device{};
        snprintf(devs[i].name, sizeof(devs[i].name), "d%zu", i);
        devs[i].order = static_cast<int8_t>(orders[i]);
        devs[i].port = -1;
    }
    return devs;
}

// The chain as indexes into devs, after checking every link both ways.
std::vector<int> chain_of(t_device_list *sentinel, std::vector<t_device> &devs)
{
    std::vector<int> out;
    EXPECT_EQ(sentinel->dev, nullptr);
    EXPECT_EQ(sentinel->prev, nullptr);
    t_device_list *prev = sentinel;
    for (t_device_list *n = sentinel->next; n != nullptr; n = n->next) {
        EXPECT_EQ(n->prev, prev) << "back link broken after " << out.size() << " nodes";
        out.push_back(static_cast<int>(n->dev - devs.data()));
        prev = n;
        if (out.size() > devs.size() + 1) {
            ADD_FAILURE() << "chain longer than the records: a loop?";
            break;
        }
    }
    return out;
}

struct Op {
    enum Kind { ADD, REMOVE } kind;
    int dev;
    int expect;
};

struct ListCase {
    const char *what;
    std::vector<int> orders;
    std::vector<Op> ops;
    std::vector<int> chain;
    const char *log_text;  // must appear exactly log_count times
    size_t log_count;
};

TEST(DeviceListTest, AddAndRemoveKeepTheInvariants)
{
    const ListCase cases[] = {
        {"orders 3, 1, 2 give 1, 2, 3", {3, 1, 2},
         {{Op::ADD, 0, 0}, {Op::ADD, 1, 0}, {Op::ADD, 2, 0}}, {1, 2, 0}, nullptr, 0},
        {"equal orders keep insertion order", {2, 2, 1, 2},
         {{Op::ADD, 1, 0}, {Op::ADD, 0, 0}, {Op::ADD, 2, 0}, {Op::ADD, 3, 0}}, {2, 1, 0, 3},
         nullptr, 0},
        {"order -1 sorts first", {1, -1}, {{Op::ADD, 0, 0}, {Op::ADD, 1, 0}}, {1, 0}, nullptr, 0},
        {"a duplicate is refused", {1, 2},
         {{Op::ADD, 0, 0}, {Op::ADD, 1, 0}, {Op::ADD, 0, LP_ERR_EXISTS}, {Op::ADD, 1, LP_ERR_EXISTS}},
         {0, 1}, "[Info][", 2},
        {"a duplicate among equal orders is refused", {1, 1},
         {{Op::ADD, 0, 0}, {Op::ADD, 1, 0}, {Op::ADD, 0, LP_ERR_EXISTS}}, {0, 1},
         "]: dev:d0 already in list!\n", 1},
        {"removing the middle node relinks both ways", {1, 2, 3},
         {{Op::ADD, 0, 0}, {Op::ADD, 1, 0}, {Op::ADD, 2, 0}, {Op::REMOVE, 1, 0}}, {0, 2},
         "]: Success remove dev:d1 from list!\n", 1},
        {"removing a record never listed", {1, 2}, {{Op::ADD, 0, 0}, {Op::REMOVE, 1, LP_ERR_NOT_FOUND}},
         {0}, "Success remove", 0},
    };
    log_set_level(7);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<t_device> devs = make_devices(c.orders);
        t_device_list_head head{};
        lptest::StdoutCapture cap;
        std::vector<int> results;
        for (const auto &op : c.ops) {
            int rc = op.kind == Op::ADD ? add_unique_device_inorder_to_list(&head.list, &devs[op.dev])
                                        : remove_unique_device_from_list(&head.list, &devs[op.dev]);
            results.push_back(rc);
        }
        std::string log = cap.stop();
        for (size_t i = 0; i < c.ops.size(); i++)
            EXPECT_EQ(results[i], c.ops[i].expect) << "operation " << i;
        EXPECT_EQ(chain_of(&head.list, devs), c.chain);
        for (size_t i = 0; i < devs.size(); i++) {
            bool listed = false;
            for (int d : c.chain)
                listed = listed || d == static_cast<int>(i);
            EXPECT_EQ(check_device_in_list(&head.list, &devs[i]), listed ? 1 : 0) << "d" << i;
        }
        if (c.log_text) {
            EXPECT_EQ(count_of(log, c.log_text), c.log_count) << log;
        }
        free_device_list(&head.list);
        EXPECT_EQ(head.list.next, nullptr);
    }
}

TEST(DeviceListTest, MergeAddsUniqueSortedAndEmptiesSource)
{
    std::vector<t_device> devs = make_devices({4, 1, 3, 2});
    t_device_list_head src{}, dst{};
    for (int i : {0, 1, 2}) {
        ASSERT_EQ(add_unique_device_inorder_to_list(&src.list, &devs[i]), 0);
        src.dev_num++;
    }
    for (int i : {3, 2}) {
        ASSERT_EQ(add_unique_device_inorder_to_list(&dst.list, &devs[i]), 0);
        dst.dev_num++;
    }
    log_set_level(7);
    lptest::StdoutCapture cap;
    EXPECT_EQ(merge_two_list(&dst, &src), LP_ERR_NOT_FOUND);  // its only answer
    std::string log = cap.stop();
    EXPECT_EQ(chain_of(&dst.list, devs), (std::vector<int>{1, 3, 2, 0}));
    EXPECT_EQ(dst.dev_num, 4);  // d2 was there already and is not counted again
    EXPECT_EQ(count_of(log, "dev:d2 already in list!\n"), 1u);
    EXPECT_EQ(src.list.next, nullptr);
    EXPECT_EQ(src.dev_num, 0);
    free_device_list(&dst.list);
}

}  // namespace
