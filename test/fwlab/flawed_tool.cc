// The tool with flaws, to see what a sweep finds: its own objects, with calls of the C library
// wrapped. FLAWS in the environment names them, with a blank around each.
#include "run/result_record.h"
#include "run/state_flags.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

int record = -1, gkiNode = -1; // descriptors
bool isRecorded = false;       // by this run

bool Has(const char* flaw) {
    const char* flaws = getenv("FLAWS");
    return flaws != nullptr && strstr(flaws, (" " + std::string(flaw) + " ").c_str()) != nullptr;
}

} // namespace

extern "C" {
// The names are the linker's.

int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int fd, const void* data, size_t size);
int __real_fsync(int fd);
int __real_remove(const char* path);

int __wrap_open(const char* path, int flags, unsigned mode) {
    int fd = __real_open(path, flags, mode);
    if (fd < 0 && strcmp(path, BEGIN_FLAG) == 0 && Has("asked-after-failure")) {
        fd = __real_open("/dev/null", O_RDWR);
    }
    record = strcmp(path, RESULT_FILE) == 0 ? fd : record;
    gkiNode = strcmp(path, "/proc/bootdevice/ffu") == 0 ? fd : gkiNode;
    return fd;
}

ssize_t __wrap_write(int fd, const void* data, size_t size) {
    isRecorded = isRecorded || fd == record;
    if (fd == record && Has("asked-unrecorded")) {
        return static_cast<ssize_t>(size);
    }
    if (fd == record && Has("record-lost")) {
        return __real_write(fd, std::string(size, 'x').c_str(), size);
    }
    if (fd == gkiNode && Has("taken-twice")) {
        (void)!__real_write(fd, data, size);
    }
    return __real_write(fd, data, size);
}

int __wrap_fsync(int fd) {
    return Has("asked-again") ? 0 : __real_fsync(fd);
}

int __wrap_remove(const char* path) {
    const int status = __real_remove(path);
    const bool hasFailed = status != 0 && errno == EIO;
    const struct {
        const char *path, *flaw;
        int signal;
    } ends[] = {{BEGIN_FLAG, "no-end", SIGALRM}, // as after the time limit
                {OK_FLAG, "bad-end", SIGSEGV},
                {OK_FLAG, "killed", SIGKILL}}; // as by this machine
    for (const auto& end : ends) {
        if (hasFailed && strcmp(path, end.path) == 0 && Has(end.flaw)) {
            raise(end.signal);
        }
    }
    if (strcmp(path, BEGIN_FLAG) == 0 && !isRecorded && Has("record-shrinks")) {
        close(__real_open(RESULT_FILE, O_WRONLY | O_TRUNC));
    }
    return status;
}
}
