// The JSON result document that other software on the router reads.
#ifndef LANPROBE_CORE_RESULT_FILE_H
#define LANPROBE_CORE_RESULT_FILE_H

#define LANPROBE_RESULT_FILE "/tmp/lanprobe_result"

// Lists every port of the interface table that has a DHCP server, with what
// the server offered, and replaces the file's content with the document.
void write_detect_result(const char *path);

#endif
