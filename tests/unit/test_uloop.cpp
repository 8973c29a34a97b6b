// The uloop behaviour the daemon is built on: pass order, timer order, descriptor
// registration and error handling on real pipes and sockets, and signal handling
// (in forked children, so this process keeps its own dispositions).
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstddef>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <type_traits>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "support/netns.h"

namespace {

std::string trace; // what the callbacks did, as space-separated words

void note(const std::string &word)
{
	trace += trace.empty() ? word : " " + word;
}

// A descriptor owner, the way daemon records embed their uloop_fd.
struct Watcher {
	struct uloop_fd ufd;
	struct uloop_timeout follow; // armed at 0 ms from the callback when `arm` is set
	const char *name;
	int calls;
	int signo; // raised by `follow`
	unsigned int events;
	bool registered, error, eof; // as seen inside the last callback
	bool drain, arm, end;
	Watcher *victim; // deleted from the callback (or from `follow`)

	// Leave nothing behind in the loop when a test ends early, so the next
	// test cannot trip over a dead record.
	~Watcher()
	{
		uloop_timeout_cancel(&follow);
		uloop_fd_delete(&ufd);
	}
};
static_assert(std::is_standard_layout_v<Watcher>);

void on_follow(struct uloop_timeout *t)
{
	Watcher *w = container_of(t, Watcher, follow);
	note(std::string("t") + w->name);
	if (w->victim)
		uloop_fd_delete(&w->victim->ufd);
	if (w->end)
		uloop_end();
	if (w->signo)
		raise(w->signo);
}

void on_fd(struct uloop_fd *u, unsigned int events)
{
	Watcher *w = container_of(u, Watcher, ufd);
	note(w->name);
	w->calls++;
	w->events = events;
	w->registered = u->registered;
	w->error = u->error;
	w->eof = u->eof;
	if (w->drain) {
		char buf[64];
		ssize_t n = read(u->fd, buf, sizeof(buf));
		(void)n;
	}
	if (w->arm) {
		w->follow.cb = on_follow;
		uloop_timeout_set(&w->follow, 0);
	} else if (w->victim) {
		uloop_fd_delete(&w->victim->ufd);
	}
}

Watcher watch(int fd, const char *name)
{
	Watcher w = {};
	w.ufd.fd = fd;
	w.ufd.cb = on_fd;
	w.name = name;
	return w;
}

struct Tick {
	struct uloop_timeout t;
	const char *name;
	int rearm_left, rearm_ms;
	int calls;
	int signo; // raised after the note
	bool end;

	~Tick() { uloop_timeout_cancel(&t); }
};
static_assert(std::is_standard_layout_v<Tick>);

void on_tick(struct uloop_timeout *t)
{
	Tick *k = container_of(t, Tick, t);
	k->calls++;
	note(k->name);
	if (k->rearm_left > 0) {
		k->rearm_left--;
		uloop_timeout_set(t, k->rearm_ms);
	}
	if (k->end)
		uloop_end();
	if (k->signo)
		raise(k->signo);
}

Tick tick(const char *name, bool end = false)
{
	Tick k = {};
	k.t.cb = on_tick;
	k.name = name;
	k.end = end;
	return k;
}

struct Pipe {
	int r = -1, w = -1;
	Pipe()
	{
		int p[2];
		if (pipe(p) == 0) {
			r = p[0];
			w = p[1];
		}
	}
	~Pipe()
	{
		close_writer();
		if (r >= 0)
			close(r);
	}
	void fill() { EXPECT_EQ(write(w, "x", 1), 1); }
	void close_writer()
	{
		if (w >= 0)
			close(w);
		w = -1;
	}
};

bool nonblocking(int fd)
{
	return fcntl(fd, F_GETFL) & O_NONBLOCK;
}

void run_passes(int n)
{
	for (int i = 0; i < n; i++)
		uloop_run_timeout(0);
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

// Due timers run between any two descriptor callbacks, even for descriptors that
// became ready together: fd1 -> its 0 ms timer -> fd2 ...
TEST_F(Uloop, PassRunsDueTimersBetweenDescriptorCallbacks)
{
	Pipe p1, p2, p3;
	Watcher w1 = watch(p1.r, "fd1"), w2 = watch(p2.r, "fd2"), w3 = watch(p3.r, "fd3");
	Watcher *all[] = {&w1, &w2, &w3};
	Pipe *pipes[] = {&p1, &p2, &p3};
	for (int i = 0; i < 3; i++) {
		pipes[i]->fill();
		all[i]->drain = all[i]->arm = true;
		ASSERT_EQ(uloop_fd_add(&all[i]->ufd, ULOOP_READ), 0);
	}
	w3.end = true; // its follow-up timer ends the run
	Tick start = tick("start");
	uloop_timeout_set(&start.t, 0);

	EXPECT_EQ(uloop_run(), 0);
	EXPECT_EQ(trace, "start fd1 tfd1 fd2 tfd2 fd3 tfd3");
}

// Arming C, A, B at 50 ms and D at 20 ms, then re-arming C at 50 ms, fires D A B C.
TEST_F(Uloop, TimersFireInExpiryOrderAndFifoAmongEquals)
{
	Tick c = tick("C", true), a = tick("A"), b = tick("B"), d = tick("D");
	uloop_timeout_set(&c.t, 50);
	uloop_timeout_set(&a.t, 50);
	uloop_timeout_set(&b.t, 50);
	uloop_timeout_set(&d.t, 20);
	uloop_timeout_set(&c.t, 50);
	EXPECT_EQ(uloop_run(), 0);
	EXPECT_EQ(trace, "D A B C");
}

// A timer re-armed from its callback with an overdue time runs again in the same
// pass, and a pass that ends (uloop_end) still runs the other due timers but no
// descriptor callback.
TEST_F(Uloop, RearmFromCallbackAndEndFromTimer)
{
	Tick again = tick("r");
	again.rearm_left = 3;
	again.rearm_ms = -1;
	uloop_timeout_set(&again.t, 0);
	uloop_run_timeout(0);
	EXPECT_EQ(again.calls, 4);

	trace.clear();
	Pipe p;
	p.fill();
	Watcher w = watch(p.r, "fd");
	ASSERT_EQ(uloop_fd_add(&w.ufd, ULOOP_READ), 0);
	Tick t1 = tick("t1", true), t2 = tick("t2");
	uloop_timeout_set(&t1.t, -2);
	uloop_timeout_set(&t2.t, -1);
	EXPECT_EQ(uloop_run(), 0);
	EXPECT_EQ(trace, "t1 t2");
	EXPECT_EQ(w.calls, 0);
	uloop_fd_delete(&w.ufd);
}

// Two descriptors ready in one batch; the first callback (or a timer it arms)
// deletes the second, which must not be called from the stale batch entry.
TEST_F(Uloop, DescriptorDeletedInTheSameBatchIsNotCalled)
{
	for (bool from_timer : {false, true}) {
		trace.clear();
		Pipe pa, pb;
		pa.fill();
		pb.fill();
		Watcher a = watch(pa.r, "a"), b = watch(pb.r, "b");
		a.drain = b.drain = true;
		a.victim = &b;
		b.victim = &a;
		a.arm = b.arm = from_timer;
		ASSERT_EQ(uloop_fd_add(&a.ufd, ULOOP_READ), 0);
		ASSERT_EQ(uloop_fd_add(&b.ufd, ULOOP_READ), 0);
		run_passes(4);
		EXPECT_EQ(trace, from_timer ? "a ta" : "a");
		EXPECT_FALSE(b.ufd.registered);
		EXPECT_TRUE(a.ufd.registered);
		uloop_fd_delete(&a.ufd);
	}
}

TEST_F(Uloop, BlockingFlagAppliesOnFirstAddOnly)
{
	struct Case {
		unsigned int adds[2];
		bool nonblock_after[2];
	} cases[] = {
		{{ULOOP_READ, 0}, {true, true}},
		{{ULOOP_READ | ULOOP_BLOCKING | ULOOP_ERROR_CB, ULOOP_WRITE}, {false, false}},
	};
	for (const Case &cs : cases) {
		int sp[2];
		ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sp), 0);
		Watcher w = watch(sp[0], "s");
		for (int i = 0; i < 2 && cs.adds[i]; i++) {
			ASSERT_EQ(uloop_fd_add(&w.ufd, cs.adds[i]), 0);
			EXPECT_EQ(w.ufd.flags, cs.adds[i]);
			EXPECT_TRUE(w.ufd.registered);
			EXPECT_EQ(nonblocking(sp[0]), cs.nonblock_after[i]) << cs.adds[0] << " then " << cs.adds[1];
		}
		EXPECT_EQ(uloop_fd_delete(&w.ufd), 0);
		EXPECT_EQ(w.ufd.flags, 0);
		close(sp[0]);
		close(sp[1]);
	}
}

// Hang-ups and errors on real descriptors.  Without ULOOP_ERROR_CB the descriptor
// is deleted before one last callback; with it, the callback comes at every pass
// while the condition lasts; an end of file without error keeps it registered.
TEST_F(Uloop, ErrorAndHangupDelivery)
{
	struct Case {
		bool socket; // else a pipe holding one byte when its writer closes
		unsigned int flags;
		int calls;
		unsigned int events;
		bool registered, error, eof;
	} cases[] = {
		{false, ULOOP_READ, 1, ULOOP_READ, false, true, false},
		{false, ULOOP_READ | ULOOP_BLOCKING | ULOOP_ERROR_CB, 5, ULOOP_READ, true, true, false},
		{true, ULOOP_READ, 5, ULOOP_READ, true, false, true},
	};
	for (const Case &cs : cases) {
		SCOPED_TRACE(::testing::Message() << "socket " << cs.socket << " flags " << cs.flags);
		int p[2];
		ASSERT_EQ(cs.socket ? socketpair(AF_UNIX, SOCK_STREAM, 0, p) : pipe(p), 0);
		if (cs.socket)
			shutdown(p[1], SHUT_WR);
		else
			ASSERT_EQ(write(p[1], "x", 1), 1);
		Watcher w = watch(p[0], "w");
		ASSERT_EQ(uloop_fd_add(&w.ufd, cs.flags), 0);
		if (!cs.socket)
			close(p[1]);
		run_passes(5);
		EXPECT_EQ(w.calls, cs.calls);
		EXPECT_EQ(w.events, cs.events);
		EXPECT_EQ(w.registered, cs.registered);
		EXPECT_EQ(w.error, cs.error);
		EXPECT_EQ(w.eof, cs.eof);
		if (w.ufd.registered) {
			// A successful add clears the marks.
			ASSERT_EQ(uloop_fd_add(&w.ufd, cs.flags), 0);
			EXPECT_FALSE(w.ufd.error);
			EXPECT_FALSE(w.ufd.eof);
			uloop_fd_delete(&w.ufd);
		}
		close(p[0]);
		if (cs.socket)
			close(p[1]);
	}
}

// ---------------------------------------------------------------- signals
// Each body runs in a forked child and prints its findings (`trace`), which
// the parent compares.

// raise() delivers synchronously inside a callback, so the handler may use the trace.
void user_handler(int signo)
{
	note(signo == SIGTERM ? "user-term" : "user-other");
}

// "dfl", "ign", "user" or "uloop" (someone else's handler), and whether it restarts.
std::string disposition(int signo)
{
	struct sigaction sa;
	sigaction(signo, nullptr, &sa);
	if (sa.sa_handler == SIG_DFL)
		return "dfl";
	if (sa.sa_handler == SIG_IGN)
		return "ign";
	if (sa.sa_handler == user_handler)
		return "user";
	return (sa.sa_flags & SA_RESTART) ? "uloop-restart" : "uloop";
}

void note_dispositions()
{
	note("int=" + disposition(SIGINT) + ",term=" + disposition(SIGTERM) +
	     ",chld=" + disposition(SIGCHLD) + ",pipe=" + disposition(SIGPIPE));
}

int sigint_ends_run_user_sigterm_does_not()
{
	signal(SIGTERM, user_handler);
	uloop_init();
	note_dispositions();

	// SIGTERM timer -> fd callback (the loop went on) -> its timer raises SIGINT.
	Pipe p;
	p.fill();
	Watcher w = watch(p.r, "fd");
	w.drain = w.arm = true;
	w.signo = SIGINT;
	uloop_fd_add(&w.ufd, ULOOP_READ);
	Tick term = tick("raise-term");
	term.signo = SIGTERM;
	uloop_timeout_set(&term.t, 0);
	int ret = uloop_run();
	note("ret=" + std::to_string(ret) + ",cancelled=" + std::to_string(uloop_cancelled));
	uloop_done();
	printf("%s", trace.c_str());
	return 0;
}

TEST(UloopSignals, SigintEndsRunWhileEarlierSigtermHandlerIsLeftAlone)
{
	lptest::ChildRun run = lptest::run_child(sigint_ends_run_user_sigterm_does_not);
	EXPECT_EQ(run.status, 0);
	EXPECT_EQ(run.out,
		  "int=uloop,term=user,chld=uloop,pipe=ign raise-term user-term fd tfd ret=2,cancelled=1");
}

} // namespace
