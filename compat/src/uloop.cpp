/*
 * The uloop event loop on epoll: timers, descriptors and the SIGINT/SIGTERM/SIGCHLD
 * handling that the daemon relies on.  Everything here behaves like the libubox loop
 * that runs on the router, including its quirks (see the comments), because the
 * daemon is built against this file on Debian and against libubox on OpenWrt.
 *
 * One thread only.  The signal handlers touch nothing but a flag, the exported
 * uloop_cancelled and the waker pipe.
 */
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

namespace {

// One epoll_wait hands out at most this many events; they are then delivered one
// per loop pass, with the due timers run in between.
constexpr int kMaxEvents = 10;

struct pending_event {
	struct uloop_fd *fd; // NULL once uloop_fd_delete dropped it from the batch
	unsigned int events;
};

// A callback that is running.  Edge-triggered descriptors are not re-entered from a
// nested uloop_run: events arriving meanwhile are collected here and delivered when
// the running callback returns.
struct running_cb {
	running_cb *prev;
	struct uloop_fd *fd; // NULL once the descriptor was deleted
	unsigned int events;
	bool again;
};

int poll_fd = -1;
int waker_pipe[2] = {-1, -1};
struct uloop_fd waker_fd;
LIST_HEAD(timeouts);

pending_event cur_fds[kMaxEvents];
int cur_fd;
int cur_nfds;
running_cb *cb_stack;
int run_depth;

volatile sig_atomic_t run_status;
volatile sig_atomic_t sigchld_seen;

void waker_write()
{
	int saved = errno;
	if (waker_pipe[1] >= 0) {
		// A full pipe already wakes the loop: losing this byte is fine.
		ssize_t n = write(waker_pipe[1], "w", 1);
		(void)n;
	}
	errno = saved;
}

void waker_consume(struct uloop_fd *u, unsigned int)
{
	char buf[16];
	while (read(u->fd, buf, sizeof(buf)) > 0) {
	}
}

void handle_sigint(int signo)
{
	run_status = signo;
	uloop_cancelled = true;
	waker_write();
}

void handle_sigchld(int)
{
	sigchld_seen = 1;
	waker_write();
}

// Install our handler only over the default action, so a handler the program set
// up before uloop_init (or SIG_IGN) keeps working.  No SA_RESTART: a blocking call
// that the signal interrupts fails with EINTR, as on the router.
void install_handler(int signo, void (*handler)(int))
{
	struct sigaction old;
	if (sigaction(signo, nullptr, &old) < 0 || old.sa_handler != SIG_DFL)
		return;
	struct sigaction sa = {};
	sa.sa_handler = handler;
	sigemptyset(&sa.sa_mask);
	sa.sa_flags = 0;
	sigaction(signo, &sa, nullptr);
}

// Put the default action back, but only where our handler is still the one set: a
// handler the program installed after uloop_init stays.
void restore_handler(int signo, void (*handler)(int))
{
	struct sigaction cur;
	if (sigaction(signo, nullptr, &cur) < 0 || cur.sa_handler != handler)
		return;
	struct sigaction sa = {};
	sa.sa_handler = SIG_DFL;
	sigemptyset(&sa.sa_mask);
	sigaction(signo, &sa, nullptr);
}

void setup_signals()
{
	install_handler(SIGINT, handle_sigint);
	install_handler(SIGTERM, handle_sigint);
	if (uloop_handle_sigchld)
		install_handler(SIGCHLD, handle_sigchld);

	struct sigaction old;
	if (sigaction(SIGPIPE, nullptr, &old) == 0 && old.sa_handler == SIG_DFL)
		signal(SIGPIPE, SIG_IGN);
}

void get_time(struct timeval *tv)
{
	struct timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	tv->tv_sec = ts.tv_sec;
	tv->tv_usec = ts.tv_nsec / 1000;
}

// Whole milliseconds from b to a, truncated toward zero: expiries less than 1 ms
// apart compare equal, which is what keeps such timers in arming order.
int64_t tv_diff(const struct timeval *a, const struct timeval *b)
{
	int64_t us = (int64_t)(a->tv_sec - b->tv_sec) * 1000000 + (a->tv_usec - b->tv_usec);
	return us / 1000;
}

void process_timeouts()
{
	struct timeval now;
	// One clock reading per pass: a timer re-armed at 0 ms from its own callback is
	// due again in this pass as long as less than 1 ms has gone by since it began.
	get_time(&now);
	while (!list_empty(&timeouts)) {
		struct uloop_timeout *t = list_first_entry(&timeouts, struct uloop_timeout, list);
		if (tv_diff(&t->time, &now) > 0)
			break;
		// Unlinked before the callback, so the callback may arm it again.
		uloop_timeout_cancel(t);
		if (t->cb)
			t->cb(t);
	}
}

void reap_children()
{
	sigchld_seen = 0;
	while (waitpid(-1, nullptr, WNOHANG) > 0) {
	}
}

void fetch_events(int timeout)
{
	struct epoll_event events[kMaxEvents];
	int n = epoll_wait(poll_fd, events, kMaxEvents, timeout);
	cur_fd = 0;
	cur_nfds = 0;
	for (int i = 0; i < n; i++) {
		struct uloop_fd *u = static_cast<struct uloop_fd *>(events[i].data.ptr);
		uint32_t e = events[i].events;
		unsigned int ev = 0;

		if (!(e & (EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLERR | EPOLLHUP)))
			continue;
		if (e & EPOLLIN)
			ev |= ULOOP_READ;
		if (e & EPOLLOUT)
			ev |= ULOOP_WRITE;
		if (e & EPOLLRDHUP)
			u->eof = true;
		if (e & (EPOLLERR | EPOLLHUP)) {
			u->error = true;
			// Without ULOOP_ERROR_CB the descriptor leaves the loop now and its
			// owner hears about it once, below.  With it, it stays: epoll is level
			// triggered, so the owner is called at every pass until it fetches the
			// error or deletes the descriptor.
			if (!(u->flags & ULOOP_ERROR_CB))
				uloop_fd_delete(u);
		}
		cur_fds[cur_nfds].fd = u;
		cur_fds[cur_nfds].events = ev;
		cur_nfds++;
	}
}

// Next undelivered event of the batch; false when the batch is used up.
bool next_event(pending_event *out)
{
	while (cur_fd < cur_nfds) {
		pending_event *p = &cur_fds[cur_fd++];
		if (p->fd) {
			*out = *p;
			return true;
		}
	}
	return false;
}

void deliver(struct uloop_fd *u, unsigned int events)
{
	if (u->flags & ULOOP_EDGE_TRIGGER) {
		for (running_cb *r = cb_stack; r; r = r->prev) {
			if (r->fd == u) {
				r->events |= events;
				r->again = true;
				return;
			}
		}
	}

	running_cb self = {cb_stack, u, events, false};
	cb_stack = &self;
	do {
		unsigned int ev = self.events;
		self.events = 0;
		self.again = false;
		if (u->cb)
			u->cb(u, ev);
	} while (self.fd && self.again);
	cb_stack = self.prev;
}

} // namespace

extern "C" {

bool uloop_cancelled = false;
bool uloop_handle_sigchld = true;
uloop_fd_handler uloop_fd_set_cb = nullptr;

int uloop_init(void)
{
	if (poll_fd >= 0)
		return 0;

	poll_fd = epoll_create1(EPOLL_CLOEXEC);
	if (poll_fd < 0)
		return -1;

	if (pipe2(waker_pipe, O_NONBLOCK | O_CLOEXEC) < 0) {
		close(poll_fd);
		poll_fd = -1;
		waker_pipe[0] = waker_pipe[1] = -1;
		return -1;
	}

	waker_fd = {};
	waker_fd.fd = waker_pipe[0];
	waker_fd.cb = waker_consume;
	uloop_fd_add(&waker_fd, ULOOP_READ);

	setup_signals();
	return 0;
}

int uloop_run_timeout(int timeout)
{
	pending_event ev;

	run_depth++;
	// A stop requested before the run (uloop_end, or SIGINT/SIGTERM caught since
	// uloop_init) is forgotten here.
	run_status = 0;
	uloop_cancelled = false;
	do {
		process_timeouts();

		if (sigchld_seen)
			reap_children();

		if (uloop_cancelled)
			break;

		if (!next_event(&ev)) {
			int wait_ms = uloop_get_next_timeout();
			if (timeout >= 0 && (wait_ms < 0 || timeout < wait_ms))
				wait_ms = timeout;
			fetch_events(wait_ms);
			if (!next_event(&ev))
				continue;
		}
		deliver(ev.fd, ev.events);
	} while (!uloop_cancelled && timeout < 0);
	run_depth--;

	return run_status;
}

bool uloop_cancelling(void)
{
	return run_depth > 0 && uloop_cancelled;
}

void uloop_done(void)
{
	restore_handler(SIGINT, handle_sigint);
	restore_handler(SIGTERM, handle_sigint);
	restore_handler(SIGCHLD, handle_sigchld);
	struct sigaction cur;
	if (sigaction(SIGPIPE, nullptr, &cur) == 0 && cur.sa_handler == SIG_IGN)
		signal(SIGPIPE, SIG_DFL);

	if (poll_fd >= 0) {
		close(poll_fd);
		poll_fd = -1;
	}
	for (int &fd : waker_pipe) {
		if (fd >= 0)
			close(fd);
		fd = -1;
	}
	waker_fd = {};
	cur_fd = cur_nfds = 0;

	// User descriptors keep their state (registered stays true): only timers go.
	while (!list_empty(&timeouts))
		uloop_timeout_cancel(list_first_entry(&timeouts, struct uloop_timeout, list));
}

int uloop_fd_add(struct uloop_fd *sock, unsigned int flags)
{
	if (!(flags & (ULOOP_READ | ULOOP_WRITE)))
		return uloop_fd_delete(sock);

	// Only on the first add, and never cleared: lanprobe's raw sockets use
	// ULOOP_BLOCKING and must stay blocking.
	if (!sock->registered && !(flags & ULOOP_BLOCKING)) {
		int fl = fcntl(sock->fd, F_GETFL);
		if (fl >= 0)
			fcntl(sock->fd, F_SETFL, fl | O_NONBLOCK);
	}

	struct epoll_event ev = {};
	if (flags & ULOOP_READ)
		ev.events |= EPOLLIN | EPOLLRDHUP;
	if (flags & ULOOP_WRITE)
		ev.events |= EPOLLOUT;
	if (flags & ULOOP_EDGE_TRIGGER)
		ev.events |= EPOLLET;
	ev.data.ptr = sock;

	// A registered struct is modified, not added; after a close without delete the
	// kernel has already forgotten it, so this fails with ENOENT.
	int op = sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
	if (epoll_ctl(poll_fd, op, sock->fd, &ev) < 0)
		return -1;

	sock->flags = (uint8_t)flags;
	sock->registered = true;
	sock->eof = false;
	sock->error = false;
	if (uloop_fd_set_cb)
		uloop_fd_set_cb(sock, flags);
	return 0;
}

int uloop_fd_delete(struct uloop_fd *fd)
{
	// Drop what the current batch still holds for this struct, registered or not,
	// so a descriptor deleted by another callback is never called afterwards.
	for (int i = cur_fd; i < cur_nfds; i++) {
		if (cur_fds[i].fd == fd)
			cur_fds[i].fd = nullptr;
	}
	for (running_cb *r = cb_stack; r; r = r->prev) {
		if (r->fd == fd)
			r->fd = nullptr;
	}

	if (!fd->registered)
		return 0;

	if (uloop_fd_set_cb)
		uloop_fd_set_cb(fd, 0);
	fd->registered = false;
	fd->flags = 0;
	return epoll_ctl(poll_fd, EPOLL_CTL_DEL, fd->fd, nullptr);
}

int uloop_get_next_timeout(void)
{
	if (list_empty(&timeouts))
		return -1;

	struct timeval now;
	get_time(&now);
	struct uloop_timeout *t = list_first_entry(&timeouts, struct uloop_timeout, list);
	int64_t diff = tv_diff(&t->time, &now);
	if (diff < 0)
		return 0;
	if (diff > INT_MAX)
		return INT_MAX;
	return (int)diff;
}

int uloop_timeout_add(struct uloop_timeout *timeout)
{
	if (timeout->pending)
		return -1;

	// In front of the first timer due at least 1 ms later; behind all others.
	struct list_head *pos = &timeouts;
	struct uloop_timeout *tmp;
	list_for_each_entry(tmp, &timeouts, list) {
		if (tv_diff(&tmp->time, &timeout->time) > 0) {
			pos = &tmp->list;
			break;
		}
	}
	list_add_tail(&timeout->list, pos);
	timeout->pending = true;
	return 0;
}

int uloop_timeout_set(struct uloop_timeout *timeout, int msecs)
{
	struct timeval *tv = &timeout->time;

	if (timeout->pending)
		uloop_timeout_cancel(timeout);

	get_time(tv);
	tv->tv_sec += msecs / 1000;
	tv->tv_usec += (msecs % 1000) * 1000;
	if (tv->tv_usec < 0) {
		tv->tv_sec--;
		tv->tv_usec += 1000000;
	} else if (tv->tv_usec >= 1000000) {
		tv->tv_sec++;
		tv->tv_usec -= 1000000;
	}
	return uloop_timeout_add(timeout);
}

int uloop_timeout_cancel(struct uloop_timeout *timeout)
{
	if (!timeout->pending)
		return -1;

	list_del(&timeout->list);
	timeout->pending = false;
	return 0;
}

// -1 means "not pending", but a timer exactly 1 ms overdue gives -1 as well.
int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout)
{
	if (!timeout->pending)
		return -1;

	struct timeval now;
	get_time(&now);
	return tv_diff(&timeout->time, &now);
}

int uloop_timeout_remaining(struct uloop_timeout *timeout)
{
	int64_t ms = uloop_timeout_remaining64(timeout);
	if (ms > INT_MAX)
		return INT_MAX;
	if (ms < INT_MIN)
		return INT_MIN;
	return (int)ms;
}

} // extern "C"
