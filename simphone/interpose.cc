// The C library's entry points that the tool and libsgutils2 call. Each one passes the call on to
// the next definition, the C library's or a sanitizer's; a call of the tool goes through Counted
// first, with phone paths led into the phone's directory and device requests led to the device.
#include "simphone/device.h"
#include "simphone/session.h"

#include <algorithm>
#include <android/log.h>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#define NEXT(name)                                                                                 \
    static const auto next = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name))
#define PASS_OTHERS(name, ...)                                                                     \
    NEXT(name);                                                                                    \
    if (!IsOfTheTool(__builtin_return_address(0)))                                                 \
    return next(__VA_ARGS__)
// A second name of the same entry point: the large-file variants are the same calls on 64 bits.
#define SAME(other, name) asm(".globl " #other "\n.set " #other ", " #name "\n")

namespace {

template <typename Value> std::string Text(const char* name, Value value) {
    if constexpr (std::is_pointer_v<Value>) {
        return std::string(name) + "=" + ResultText(value);
    } else {
        return std::string(name) + "=" + std::to_string(value);
    }
}

OpenFile Opened(int fd) {
    const auto found = session->descriptors.find(fd);
    return found == session->descriptors.end() ? OpenFile{"-", 0, Node::NONE} : found->second;
}

// Device nodes are known by what the descriptor leads to, so that they may be symbolic links.
Node NodeOf(int fd) {
    struct stat here, there;
    const struct {
        Node node;
        const char* path;
    } nodes[] = {{Node::MMC, "/dev/block/mmcblk0"},
                 {Node::SCSI, "/dev/block/sdc"},
                 {Node::GKI, "/proc/bootdevice/ffu"}};
    for (const auto& candidate : nodes) {
        if (stat(HostPath(candidate.path).c_str(), &there) == 0 && fstat(fd, &here) == 0 &&
            here.st_ino == there.st_ino && here.st_dev == there.st_dev) {
            return candidate.node;
        }
    }
    return Node::NONE;
}

// The host's file system may not take direct I/O; Misaligned checks what a phone's would demand.
template <typename Perform>
int OpenCall(const char* function, const char* path, int flags, Perform perform) {
    char arguments[32];
    snprintf(arguments, sizeof(arguments), "flags=0x%x", static_cast<unsigned>(flags));
    return Counted({function, path, arguments}, -1, [&] {
        const bool direct = IsPhonePath(path) && (flags & O_DIRECT) != 0;
        const int fd = perform(HostPath(path).c_str(), direct ? flags & ~O_DIRECT : flags);
        if (fd >= 0) {
            session->descriptors[fd] = {path, flags, IsPhonePath(path) ? NodeOf(fd) : Node::NONE};
        }
        return fd;
    });
}

bool Misaligned(int fd, const OpenFile& file, const void* data, size_t count) {
    const auto place = reinterpret_cast<uintptr_t>(data) | count;
    return (file.flags & O_DIRECT) != 0 &&
           (place | static_cast<size_t>(lseek(fd, 0, SEEK_CUR))) % 512 != 0;
}

// For a lambda's last line: an error number becomes errno and -1.
int Failing(int error) {
    errno = error;
    return error != 0 ? -1 : 0;
}

template <typename Perform> ssize_t ReadCall(int fd, void* data, size_t count, Perform perform) {
    const OpenFile file = Opened(fd);
    Call call{"read", file.path, Text("fd", fd) + Text(" count", count)};
    call.count = &count;
    return Counted(call, ssize_t{-1}, [&]() -> ssize_t {
        return Misaligned(fd, file, data, count) ? Failing(EINVAL) : perform(count);
    });
}

int DeviceCall(int fd, const OpenFile& file, unsigned long request, void* argument) {
    Call call{"ioctl", file.path, Text("fd", fd)};
    if (request == SG_SCSI_RESET) {
        call.alias = "SG_SCSI_RESET";
        call.request = call.alias + Text(" type", *static_cast<int*>(argument));
    } else if (request == SG_IO) {
        call.alias = "SG_IO";
        call.request = DescribeScsi(*static_cast<sg_io_hdr*>(argument));
    } else {
        const auto& command = *static_cast<mmc_ioc_cmd*>(argument);
        call.alias = MmcRequestName(command.opcode);
        call.request = DescribeMmc(command);
    }
    call.arguments += std::string(" request=") + call.alias;
    std::string response;
    call.response = &response;
    return Counted(call, -1, [&] {
        if (request == SG_SCSI_RESET) {
            return 0;
        }
        if (request == MMC_IOC_CMD) {
            return Failing(AnswerMmc(session->directory, session->phone.gki, file.flags,
                                     *static_cast<mmc_ioc_cmd*>(argument)));
        }
        const auto& answers = session->phone.answers;
        const size_t turn = std::min(session->scsiRequests++, answers.size() - 1);
        return Failing(AnswerScsi(session->directory, answers[turn], session->phone.maxHwSectorsKb,
                                  file.flags, *static_cast<sg_io_hdr*>(argument), response));
    });
}

// A phone path resolves to the phone's own path; a link that leads out of the phone leads nowhere.
template <typename Perform> char* RealPathCall(const char* path, char* resolved, Perform perform) {
    return Counted({"realpath", path, ""}, static_cast<char*>(nullptr), [&]() -> char* {
        const size_t root = IsPhonePath(path) ? session->directory.size() : 0;
        char whole[PATH_MAX];
        if (perform(HostPath(path).c_str(), whole) == nullptr) {
            return nullptr;
        }
        if (session->directory.compare(0, root, whole, root) != 0) {
            errno = ENOENT;
            return nullptr;
        }
        const char* inside = whole + root;
        if (resolved == nullptr) {
            return strdup(inside);
        }
        return static_cast<char*>(memcpy(resolved, inside, strlen(inside) + 1));
    });
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {
// The checked variants that _FORTIFY_SOURCE calls; no header declares them for a build without it.
ssize_t __read_chk(int fd, void* data, size_t count, size_t size);
char* __realpath_chk(const char* path, char* resolved, size_t size) noexcept;
char* __fgets_chk(char* line, size_t space, int size, FILE* stream);

int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list more;
        va_start(more, flags);
        mode = va_arg(more, mode_t);
        va_end(more);
    }
    PASS_OTHERS(open, path, flags, mode);
    return OpenCall("open", path, flags,
                    [&](const char* host, int kept) { return next(host, kept, mode); });
}
SAME(open64, open);
SAME(__open_2, open); // the checked variant, without a mode
SAME(__open64_2, open);

int creat(const char* path, mode_t mode) {
    PASS_OTHERS(creat, path, mode);
    return OpenCall("creat", path, O_CREAT | O_WRONLY | O_TRUNC,
                    [&](const char* host, int) { return next(host, mode); });
}
SAME(creat64, creat);

int access(const char* path, int mode) noexcept {
    PASS_OTHERS(access, path, mode);
    return Counted({"access", path, Text("mode", mode)}, -1,
                   [&] { return next(HostPath(path).c_str(), mode); });
}

ssize_t read(int fd, void* data, size_t count) {
    PASS_OTHERS(read, fd, data, count);
    return ReadCall(fd, data, count, [&](size_t kept) { return next(fd, data, kept); });
}

ssize_t __read_chk(int fd, void* data, size_t count, size_t size) {
    PASS_OTHERS(__read_chk, fd, data, count, size);
    return ReadCall(fd, data, count, [&](size_t kept) { return next(fd, data, kept, size); });
}

ssize_t write(int fd, const void* data, size_t count) {
    PASS_OTHERS(write, fd, data, count);
    const OpenFile file = Opened(fd);
    const size_t asked = count;
    Call call{"write", file.path, Text("fd", fd) + Text(" count", count)};
    call.count = &count;
    if (file.node == Node::GKI) {
        call.request = "GKI write " + std::to_string(asked);
    }
    return Counted(call, ssize_t{-1}, [&]() -> ssize_t {
        if (file.node == Node::GKI) {
            const int error = TakeGkiImage(session->directory, data, count, asked);
            return error != 0 ? Failing(error) : static_cast<ssize_t>(count);
        }
        return Misaligned(fd, file, data, count) ? Failing(EINVAL) : next(fd, data, count);
    });
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
    PASS_OTHERS(lseek, fd, offset, whence);
    const std::string arguments =
        Text("fd", fd) + Text(" offset", offset) + Text(" whence", whence);
    return Counted({"lseek", Opened(fd).path, arguments}, off_t{-1},
                   [&] { return next(fd, offset, whence); });
}
SAME(lseek64, lseek);

int fsync(int fd) {
    PASS_OTHERS(fsync, fd);
    return Counted({"fsync", Opened(fd).path, Text("fd", fd)}, -1, [&] { return next(fd); });
}

int close(int fd) {
    PASS_OTHERS(close, fd);
    Call call{"close", Opened(fd).path, Text("fd", fd)};
    call.releases = true; // Linux gives the descriptor back even if it reports an error
    return Counted(call, -1, [&] {
        session->descriptors.erase(fd);
        return next(fd);
    });
}

int fstat(int fd, struct stat* status) noexcept {
    PASS_OTHERS(fstat, fd, status);
    const OpenFile file = Opened(fd);
    return Counted({"fstat", file.path, Text("fd", fd)}, -1, [&] {
        const int result = next(fd, status);
        if (result == 0 && (file.node == Node::MMC || file.node == Node::SCSI)) {
            status->st_mode = (status->st_mode & 07777) | S_IFBLK;
            status->st_rdev = file.node == Node::SCSI ? makedev(8, 32) : makedev(179, 0);
        }
        return result;
    });
}
SAME(fstat64, fstat);

void* mmap(void* place, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
    PASS_OTHERS(mmap, place, size, protection, flags, fd, offset);
    const std::string arguments = Text("fd", fd) + Text(" size", size) + Text(" offset", offset);
    return Counted({"mmap", Opened(fd).path, arguments}, MAP_FAILED,
                   [&] { return next(place, size, protection, flags, fd, offset); });
}
SAME(mmap64, mmap);

int munmap(void* place, size_t size) noexcept {
    PASS_OTHERS(munmap, place, size);
    const std::string arguments = Text("pointer", place) + Text(" size", size);
    return Counted({"munmap", "-", arguments}, -1, [&] { return next(place, size); });
}

int remove(const char* path) noexcept {
    PASS_OTHERS(remove, path);
    return Counted({"remove", path, ""}, -1, [&] { return next(HostPath(path).c_str()); });
}

int unlink(const char* path) noexcept {
    PASS_OTHERS(unlink, path);
    return Counted({"unlink", path, ""}, -1, [&] { return next(HostPath(path).c_str()); });
}

int mkdir(const char* path, mode_t mode) noexcept {
    PASS_OTHERS(mkdir, path, mode);
    return Counted({"mkdir", path, Text("mode", mode)}, -1,
                   [&] { return next(HostPath(path).c_str(), mode); });
}

char* realpath(const char* path, char* resolved) noexcept {
    PASS_OTHERS(realpath, path, resolved);
    return RealPathCall(path, resolved, next);
}

char* __realpath_chk(const char* path, char* resolved, size_t size) noexcept {
    PASS_OTHERS(__realpath_chk, path, resolved, size);
    return RealPathCall(path, resolved,
                        [&](const char* host, char* whole) { return next(host, whole, PATH_MAX); });
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list more;
    va_start(more, request);
    void* argument = va_arg(more, void*);
    va_end(more);
    PASS_OTHERS(ioctl, fd, request, argument);
    const OpenFile file = Opened(fd);
    const bool scsi = request == SG_IO || request == SG_SCSI_RESET;
    if (argument != nullptr &&
        ((file.node == Node::SCSI && scsi) || (file.node == Node::MMC && request == MMC_IOC_CMD))) {
        return DeviceCall(fd, file, request, argument);
    }
    char arguments[48];
    snprintf(arguments, sizeof(arguments), "fd=%d request=0x%lx", fd, request);
    return Counted({"ioctl", file.path, arguments}, -1,
                   [&] { return next(fd, request, argument); });
}

void* calloc(size_t count, size_t size) noexcept {
    PASS_OTHERS(calloc, count, size);
    const std::string arguments = Text("count", count) + Text(" size", size);
    return Counted({"calloc", "-", arguments}, static_cast<void*>(nullptr),
                   [&] { return next(count, size); });
}

void* memalign(size_t alignment, size_t size) noexcept {
    PASS_OTHERS(memalign, alignment, size);
    const std::string arguments = Text("alignment", alignment) + Text(" size", size);
    return Counted({"memalign", "-", arguments}, static_cast<void*>(nullptr),
                   [&] { return next(alignment, size); });
}

// The only call here that returns its error number; errno is left alone.
int posix_memalign(void** place, size_t alignment, size_t size) noexcept {
    PASS_OTHERS(posix_memalign, place, alignment, size);
    const int errnoBefore = errno;
    const std::string arguments = Text("alignment", alignment) + Text(" size", size);
    const int result = Counted({"posix_memalign", "-", arguments}, -1,
                               [&] { return Failing(next(place, alignment, size)); });
    const int status = result == -1 ? errno : result;
    errno = errnoBefore;
    return status;
}

int gettimeofday(timeval* now, void* zone) noexcept {
    PASS_OTHERS(gettimeofday, now, zone);
    return Counted({"gettimeofday", "-", ""}, -1, [&] {
        const int result = next(now, zone);
        if (session->phone.clockFixed) {
            *now = session->now;
        }
        return result;
    });
}

time_t time(time_t* now) noexcept {
    PASS_OTHERS(time, now);
    return Counted({"time", "-", ""}, time_t{-1}, [&] {
        const time_t seconds = session->phone.clockFixed ? session->now.tv_sec : next(nullptr);
        if (now != nullptr) {
            *now = seconds;
        }
        return seconds;
    });
}

tm* localtime(const time_t* seconds) noexcept {
    PASS_OTHERS(localtime, seconds);
    return Counted({"localtime", "-", Text("seconds", *seconds)}, static_cast<tm*>(nullptr),
                   [&] { return next(seconds); });
}

char* ctime(const time_t* seconds) noexcept {
    PASS_OTHERS(ctime, seconds);
    return Counted({"ctime", "-", Text("seconds", *seconds)}, static_cast<char*>(nullptr),
                   [&] { return next(seconds); });
}

unsigned sleep(unsigned seconds) {
    PASS_OTHERS(sleep, seconds);
    return Counted({"sleep", "-", Text("seconds", seconds)}, UINT_MAX, [] { return 0U; });
}

FILE* fopen(const char* path, const char* mode) {
    PASS_OTHERS(fopen, path, mode);
    return Counted({"fopen", path, std::string("mode=") + mode}, static_cast<FILE*>(nullptr), [&] {
        FILE* stream = next(HostPath(path).c_str(), mode);
        if (stream != nullptr) {
            session->streams[stream] = path;
        }
        return stream;
    });
}
SAME(fopen64, fopen);

char* fgets(char* line, int size, FILE* stream) {
    PASS_OTHERS(fgets, line, size, stream);
    return Counted({"fgets", session->streams[stream], ""}, static_cast<char*>(nullptr),
                   [&] { return next(line, size, stream); });
}

char* __fgets_chk(char* line, size_t space, int size, FILE* stream) {
    PASS_OTHERS(__fgets_chk, line, space, size, stream);
    return Counted({"fgets", session->streams[stream], ""}, static_cast<char*>(nullptr),
                   [&] { return next(line, space, size, stream); });
}

int fclose(FILE* stream) {
    PASS_OTHERS(fclose, stream);
    Call call{"fclose", session->streams[stream], Text("pointer", stream)};
    call.releases = true;
    return Counted(call, EOF, [&] {
        session->streams.erase(stream);
        return next(stream);
    });
}

int __android_log_print(int priority, const char* tag, const char* format, ...) {
    char text[4096];
    va_list more;
    va_start(more, format);
    vsnprintf(text, sizeof(text), format, more);
    va_end(more);
    PASS_OTHERS(__android_log_print, priority, tag, "%s", text);
    Call call{LOG_FUNCTION, "-",
              Text("priority", priority) + " tag=" + (tag != nullptr ? tag : "-")};
    call.message = text;
    return Counted(call, -1, [] { return 1; });
}
}
#pragma GCC visibility pop
