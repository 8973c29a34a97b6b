// RAII owner of a descriptor that a function opens and closes itself.
#ifndef LANPROBE_SUPPORT_FD_GUARD_H
#define LANPROBE_SUPPORT_FD_GUARD_H

#include <unistd.h>

class FdGuard {
public:
    explicit FdGuard(int fd) : fd_(fd) {}
    ~FdGuard()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    FdGuard(const FdGuard &) = delete;
    FdGuard &operator=(const FdGuard &) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release()
    {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

#endif
