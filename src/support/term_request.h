// A SIGTERM sent from outside, noted by the signal handler and acted on by the
// daemon at the next point where nothing is half done.
//
// The handler may interrupt anything: malloc, a uthash insert, the json-c
// write of the result file.  Cleaning up from there could corrupt the heap or
// leave half a document, so the handler only sets a flag and writes one byte
// into a pipe.  Every wait of the daemon also watches that pipe (the event
// loop, the ARP check's waits and pause), and every point after which the
// daemon would send a frame or start a copy asks first, so the stop comes
// within milliseconds, whatever the daemon was doing, and nothing goes out
// after it.  Acting means raising SIGTERM once more as our own signal: the
// handler then runs the cleanup at once, from a point we chose.
#ifndef LANPROBE_SUPPORT_TERM_REQUEST_H
#define LANPROBE_SUPPORT_TERM_REQUEST_H

// Creates the wake-up pipe; call before the handler is installed.  Without
// the pipe a stop is still acted on, at the end of the current wait.
void term_request_init(void);
// From the signal handler: async-signal-safe.
void term_request_note(void);
// Becomes readable once a stop was requested (-1 when there is no pipe).
int term_request_fd(void);
// Empties the pipe once its byte has woken a wait.
void term_request_drain(void);
void term_request_close(void);

// The next SIGTERM is our own (kill_self, the raise after a failed discovery).
void term_mark_own(void);
bool term_is_own(void);

// When a stop was requested: raises SIGTERM as our own signal, whose handler
// ends the process.  Returns only when none was requested.
void term_act_if_requested(void);
// Sleeps up to ms milliseconds, but acts on a stop request at once.
void term_pause_ms(unsigned int ms);

#endif
