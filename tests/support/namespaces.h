// The private world every test and fuzz target that touches the system runs
// in: new mount (and network) namespaces, a fresh tmpfs on /tmp and an empty
// writable /etc/config; the host's own files and interfaces are never touched.
#ifndef LANPROBE_TESTS_SUPPORT_NAMESPACES_H
#define LANPROBE_TESTS_SUPPORT_NAMESPACES_H

namespace tk {

// With net: a network namespace too, with its own sysfs and lo up.  Returns
// nullptr, or the step that failed (the caller needs root).
const char *enter_namespaces(bool net);

}  // namespace tk

#endif
