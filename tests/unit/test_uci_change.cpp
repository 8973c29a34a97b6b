// In-memory changes and commits through real files in a temporary confdir.
#include <string.h>
#include <sys/stat.h>

#include <string>

#include <uci.h>

#include "unit/test_uci_helpers.h"

namespace {

using uci_test::TempDir;

class UciChange : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_.write("cfg", "# comment that a commit drops\nconfig t s\n\toption a '1'\n\toption b 'x'\n"
                          "\tlist l 'i1'\n\tlist l 'i2'\n\tlist l 'i1'\nconfig u\n\toption c 'q'\n");
        ctx_ = uci_alloc_context();
        uci_set_confdir(ctx_, dir_.path().c_str());
    }
    void TearDown() override { uci_free_context(ctx_); }

    // Lookup by key (extended), kept alive in key_.
    int look(const char *key, struct uci_ptr *ptr)
    {
        strncpy(key_, key, sizeof(key_) - 1);
        return uci_lookup_ptr(ctx_, ptr, key_, true);
    }
    int commit()
    {
        struct uci_package *p = uci_lookup_package(ctx_, "cfg");
        return uci_commit(ctx_, &p, false);
    }

    TempDir dir_;
    struct uci_context *ctx_ = nullptr;
    char key_[128] = {};
};

TEST_F(UciChange, SetReplacesInPlaceAppendsAndCommitsAtomically)
{
    struct uci_ptr ptr;
    ASSERT_EQ(look("cfg.s.a=2", &ptr), UCI_OK);
    ASSERT_EQ(uci_set(ctx_, &ptr), UCI_OK);
    ASSERT_EQ(look("cfg.s.new=it's", &ptr), UCI_OK);
    ASSERT_EQ(uci_set(ctx_, &ptr), UCI_OK);
    ASSERT_EQ(look("cfg.s.l=flat", &ptr), UCI_OK); // a list becomes a string in place
    ASSERT_EQ(uci_set(ctx_, &ptr), UCI_OK);
    ASSERT_EQ(look("cfg.@u[0].c=", &ptr), UCI_OK); // "" deletes
    ASSERT_EQ(uci_set(ctx_, &ptr), UCI_OK);
    ASSERT_EQ(look("cfg.s.none=", &ptr), UCI_OK); // "" on a missing option: nothing
    ASSERT_EQ(uci_set(ctx_, &ptr), UCI_OK);
    ASSERT_EQ(look("cfg.n=newtype", &ptr), UCI_OK); // new named section
    ASSERT_EQ(uci_set(ctx_, &ptr), UCI_OK);
    EXPECT_STREQ(ptr.s->type, "newtype");
    ASSERT_EQ(look("cfg.nosec.o=v", &ptr), UCI_OK); // option in a missing section
    EXPECT_EQ(uci_set(ctx_, &ptr), UCI_ERR_INVAL);
    ASSERT_EQ(look("cfg.s.a", &ptr), UCI_OK); // no value
    EXPECT_EQ(uci_set(ctx_, &ptr), UCI_ERR_INVAL);

    EXPECT_EQ(dir_.read("cfg").substr(0, 9), "# comment") << "nothing written before commit";
    ASSERT_EQ(commit(), UCI_OK);
    EXPECT_EQ(dir_.read("cfg"), "\nconfig t 's'\n\toption a '2'\n\toption b 'x'\n\toption l 'flat'\n"
                                "\toption new 'it'\\''s'\n\nconfig u\n\nconfig newtype 'n'\n\n");
    struct stat st;
    ASSERT_EQ(stat(dir_.file("cfg").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u) << "the file keeps its mode";

    // What was written reads back the same.
    struct uci_context *again = uci_alloc_context();
    uci_set_confdir(again, dir_.path().c_str());
    char key[] = "cfg.s.new";
    ASSERT_EQ(uci_lookup_ptr(again, &ptr, key, true), UCI_OK);
    EXPECT_STREQ(ptr.o->v.string, "it's");
    uci_free_context(again);

    // No temporary file is left beside it.
    std::string listing;
    FILE *ls = popen(("ls -A '" + dir_.path() + "'").c_str(), "r");
    char line[256];
    while (fgets(line, sizeof(line), ls))
        listing += line;
    pclose(ls);
    EXPECT_EQ(listing, "cfg\n");
}

TEST_F(UciChange, CommitWithoutChangesKeepsTheFile)
{
    struct uci_ptr ptr;
    ASSERT_EQ(look("cfg.s.a=1", &ptr), UCI_OK); // same value: no change
    ASSERT_EQ(uci_set(ctx_, &ptr), UCI_OK);
    std::string before = dir_.read("cfg");
    ASSERT_EQ(commit(), UCI_OK);
    EXPECT_EQ(dir_.read("cfg"), before);
    struct uci_package *none = nullptr;
    EXPECT_EQ(uci_commit(ctx_, &none, false), UCI_ERR_INVAL);
    EXPECT_EQ(uci_commit(ctx_, nullptr, false), UCI_ERR_INVAL);
}

TEST_F(UciChange, DeleteAndLists)
{
    struct uci_ptr ptr;
    ASSERT_EQ(look("cfg.s.l=1", &ptr), UCI_OK); // list index 1
    ASSERT_EQ(uci_delete(ctx_, &ptr), UCI_OK);
    ASSERT_EQ(look("cfg.s.l=x", &ptr), UCI_OK); // not an index: 1, nothing changed
    EXPECT_EQ(uci_delete(ctx_, &ptr), 1);
    EXPECT_EQ(ctx_->err, UCI_OK);
    ASSERT_EQ(look("cfg.s.missing", &ptr), UCI_OK);
    EXPECT_EQ(uci_delete(ctx_, &ptr), UCI_ERR_NOTFOUND);
    ASSERT_EQ(look("cfg", &ptr), UCI_OK);
    EXPECT_EQ(uci_delete(ctx_, &ptr), UCI_ERR_INVAL);

    ASSERT_EQ(look("cfg.s.b=y", &ptr), UCI_OK); // string -> [x, y] in place
    ASSERT_EQ(uci_add_list(ctx_, &ptr), UCI_OK);
    ASSERT_EQ(look("cfg.s.m=z", &ptr), UCI_OK); // new list at the end
    ASSERT_EQ(uci_add_list(ctx_, &ptr), UCI_OK);
    ASSERT_EQ(look("cfg.s.l=i1", &ptr), UCI_OK); // every i1 goes
    ASSERT_EQ(uci_del_list(ctx_, &ptr), UCI_OK);
    ASSERT_EQ(look("cfg.s.a=1", &ptr), UCI_OK); // del_list on a string: nothing
    ASSERT_EQ(uci_del_list(ctx_, &ptr), UCI_OK);
    ASSERT_EQ(look("cfg.s.a=1", &ptr), UCI_OK); // then add_list: [1, 1]
    ASSERT_EQ(uci_add_list(ctx_, &ptr), UCI_OK);
    ASSERT_EQ(look("cfg.nosuch.a=1", &ptr), UCI_OK);
    EXPECT_EQ(uci_add_list(ctx_, &ptr), UCI_ERR_INVAL);
    EXPECT_EQ(uci_del_list(ctx_, &ptr), UCI_ERR_INVAL);
    ASSERT_EQ(look("cfg.@u[-1]", &ptr), UCI_OK); // a whole section
    ASSERT_EQ(uci_delete(ctx_, &ptr), UCI_OK);
    EXPECT_EQ(ptr.s, nullptr);

    ASSERT_EQ(commit(), UCI_OK);
    // l had [i1, i2, i1] -> index 1 removed -> [i1, i1] -> del i1 -> [] written as nothing.
    EXPECT_EQ(dir_.read("cfg"), "\nconfig t 's'\n\tlist a '1'\n\tlist a '1'\n\tlist b 'x'\n\tlist b 'y'\n"
                                "\tlist m 'z'\n\n");
}

// A ptr filled in by hand is looked up by the change itself, literally.
TEST_F(UciChange, HandFilledPtr)
{
    struct uci_ptr ptr;
    memset(&ptr, 0, sizeof(ptr));
    ptr.package = "cfg";
    ptr.section = "s";
    ptr.option = "a";
    ptr.value = "hand";
    ASSERT_EQ(uci_set(ctx_, &ptr), UCI_OK);
    EXPECT_STREQ(ptr.o->v.string, "hand");
    memset(&ptr, 0, sizeof(ptr));
    ptr.package = "nosuchpkg";
    ptr.section = "s";
    ptr.option = "a";
    ptr.value = "v";
    EXPECT_EQ(uci_set(ctx_, &ptr), UCI_ERR_NOTFOUND);
    memset(&ptr, 0, sizeof(ptr));
    ptr.package = "cfg";
    ptr.section = "@t[0]";
    ptr.option = "a";
    ptr.value = "v";
    EXPECT_EQ(uci_set(ctx_, &ptr), UCI_ERR_INVAL) << "matched literally: no such section";
}

} // namespace
