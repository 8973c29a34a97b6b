// The uloop behaviour the daemon is built on, on real pipes and sockets: the
// order of one pass, timer order, re-arming, deletion inside a batch, error
// and hang-up delivery, and the signals uloop takes (in a forked child).
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <type_traits>

extern "C" {
#include <libubox/uloop.h>
}

namespace {

std::string trace;  // what the callbacks did, one word each

void note(const std::string &word)
{
    trace += (trace.empty() ? "" : " ") + word;
}

// A descriptor (on a pipe holding a byte) or a timer, embedded the way the
// daemon embeds them.  An fd callback reads what is there (with drain), arms
// its timer (with arm) or deletes victim; a timer ends the run, raises a
// signal or deletes its record's victim.
struct Rec {
    struct uloop_fd ufd;
    struct uloop_timeout t;
    const char *name;
    int calls, signo;
    bool arm, end, drain;
    Rec *victim;
    unsigned int events;
    bool registered, error, eof;
};
static_assert(std::is_standard_layout_v<Rec>);

void on_timer(struct uloop_timeout *t)
{
    Rec *r = container_of(t, Rec, t);
    r->calls++;
    note(std::string(r->ufd.cb ? "t" : "") + r->name);
    if (r->ufd.cb && r->victim)
        uloop_fd_delete(&r->victim->ufd);
    if (r->end)
        uloop_end();
    if (r->signo)
        raise(r->signo);
}

void on_fd(struct uloop_fd *u, unsigned int events)
{
    Rec *r = container_of(u, Rec, ufd);
    note(r->name);
    r->calls++;
    r->events = events;
    r->registered = u->registered;
    r->error = u->error;
    r->eof = u->eof;
    char buf[64];
    if (r->drain && read(u->fd, buf, sizeof(buf)) < 0)
        note("read-error");
    if (r->arm)
        uloop_timeout_set(&r->t, 0);
    else if (r->victim)
        uloop_fd_delete(&r->victim->ufd);
}

Rec make(const char *name, bool with_fd = false)
{
    Rec r{};
    r.name = name;
    r.t.cb = on_timer;
    if (with_fd) {
        int p[2];
        EXPECT_EQ(pipe(p), 0);
        EXPECT_EQ(write(p[1], "x", 1), 1);  // the write end stays open: no hang-up
        r.ufd.fd = p[0];
        r.ufd.cb = on_fd;
        r.drain = true;
    }
    return r;
}

class Uloop : public ::testing::Test {
protected:
    void SetUp() override
    {
        trace.clear();
        ASSERT_EQ(uloop_init(), 0);
    }
    void TearDown() override { uloop_done(); }
};

TEST_F(Uloop, PassOrderAndTimerOrder)
{
    // Due timers run between any two descriptor callbacks of one batch.
    Rec fds[] = {make("fd1", true), make("fd2", true), make("fd3", true)};
    for (Rec &r : fds) {
        r.arm = true;
        ASSERT_EQ(uloop_fd_add(&r.ufd, ULOOP_READ), 0);
    }
    fds[2].end = true;
    Rec start = make("start");
    uloop_timeout_set(&start.t, 0);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(trace, "start fd1 tfd1 fd2 tfd2 fd3 tfd3");
    for (Rec &r : fds)
        uloop_fd_delete(&r.ufd);

    // C, A, B at 50 ms, D at 20 ms, C again at 50 ms: D A B C (FIFO among equals).
    trace.clear();
    Rec c = make("C"), a = make("A"), b = make("B"), d = make("D");
    c.end = true;
    for (Rec *r : {&c, &a, &b})
        uloop_timeout_set(&r->t, 50);
    uloop_timeout_set(&d.t, 20);
    uloop_timeout_set(&c.t, 50);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(trace, "D A B C");
}

// Two descriptors ready in one batch: the first one's callback (or a timer it
// arms) deletes the second, which must not be called from the stale entry.
TEST_F(Uloop, DeletedInTheSameBatchIsNotCalled)
{
    for (bool from_timer : {false, true}) {
        trace.clear();
        Rec a = make("a", true), b = make("b", true);
        a.victim = &b;
        b.victim = &a;
        a.arm = b.arm = from_timer;
        ASSERT_EQ(uloop_fd_add(&a.ufd, ULOOP_READ), 0);
        ASSERT_EQ(uloop_fd_add(&b.ufd, ULOOP_READ), 0);
        for (int i = 0; i < 4; i++)
            uloop_run_timeout(0);
        EXPECT_EQ(trace, from_timer ? "a ta" : "a");
        EXPECT_TRUE(a.ufd.registered && !b.ufd.registered);
        uloop_fd_delete(&a.ufd);
    }
}

// Without ULOOP_ERROR_CB a hang-up deletes the descriptor before one last
// callback; with it the callback comes at every pass while the error lasts;
// an end of file without error keeps it registered.
TEST_F(Uloop, ErrorAndHangupDelivery)
{
    const struct {
        bool socket;  // else a pipe holding a byte when its writer closes
        unsigned int flags;
        int calls;
        bool registered, error, eof;
    } rows[] = {
        {false, ULOOP_READ, 1, false, true, false},
        {false, ULOOP_READ | ULOOP_BLOCKING | ULOOP_ERROR_CB, 5, true, true, false},
        {true, ULOOP_READ, 5, true, false, true},
    };
    for (const auto &r : rows) {
        int p[2];
        ASSERT_EQ(r.socket ? socketpair(AF_UNIX, SOCK_STREAM, 0, p) : pipe(p), 0);
        if (r.socket)
            shutdown(p[1], SHUT_WR);
        else
            ASSERT_EQ(write(p[1], "x", 1), 1);
        Rec w = make("w");
        w.ufd.fd = p[0];
        w.ufd.cb = on_fd;
        ASSERT_EQ(uloop_fd_add(&w.ufd, r.flags), 0);
        if (!r.socket)
            close(p[1]);
        for (int i = 0; i < 5; i++)
            uloop_run_timeout(0);
        EXPECT_TRUE(w.calls == r.calls && w.events == ULOOP_READ && w.registered == r.registered &&
                    w.error == r.error && w.eof == r.eof)
            << r.flags << ": " << w.calls << " calls, registered " << w.registered << ", error " << w.error;
        uloop_fd_delete(&w.ufd);
        close(p[0]);
        if (r.socket)
            close(p[1]);
    }
}

void user_handler(int)
{
    note("user-term");
}

// uloop takes SIGINT (ending the run with 2) but leaves a SIGTERM handler
// that was installed before uloop_init alone.
TEST(UloopSignals, SigintEndsRunSigtermLeftAlone)
{
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    pid_t pid = fork();
    if (pid == 0) {
        trace.clear();
        signal(SIGTERM, user_handler);
        uloop_init();
        struct sigaction term;
        sigaction(SIGTERM, nullptr, &term);
        Rec t = make("t"), i = make("i");
        t.signo = SIGTERM;
        i.signo = SIGINT;
        uloop_timeout_set(&t.t, 0);
        uloop_timeout_set(&i.t, 10);
        int ret = uloop_run();
        note("ret=" + std::to_string(ret) + (term.sa_handler == user_handler ? " kept" : " replaced"));
        _exit(write(out[1], trace.data(), trace.size()) < 0);
    }
    close(out[1]);
    char buf[256] = {};
    ASSERT_GT(read(out[0], buf, sizeof(buf) - 1), 0);
    waitpid(pid, nullptr, 0);
    EXPECT_STREQ(buf, "t user-term i ret=2 kept");
}

}  // namespace
