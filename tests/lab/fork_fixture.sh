#!/bin/sh
# Has the process shape of the daemon, for testing the lab runner: the parent
# leaves the placeholder and exits 0 at once; the forked child writes console
# messages the way the daemon does (each one opens /dev/console anew,
# truncating), records what it sees of the router, and exits with status 5.
printf 'time 19' > /tmp/lanprobe_result
(
    sleep 0.3
    echo "first message" > /dev/console
    echo "second message" > /dev/console
    {
        echo "config: $(ls /etc/config | tr '\n' ' ')"
        echo "net: $(ls /sys/class/net | tr '\n' ' ')"
        echo "pid: $$"
    } >> /tmp/lanprobe.log
    printf '{"result":[]}' > /tmp/lanprobe_result
    exit 5
) &
exit 0
