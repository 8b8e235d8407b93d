// The C library's entry points that the tool and libsgutils2 call. Each one passes the call on to
// the next definition, the C library's or a sanitizer's; a call of the tool goes through Counted
// first, with phone paths led into the phone's directory and device requests led to the device.
#include "simphone/preload/session.h"

#include <android/log.h>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
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
// The whole of most entry points: how others' calls are passed on, what is noted of the tool's, and
// how these are carried out.
#define COUNTED(name, passed, path, arguments, ...)                                                \
    NEXT(name);                                                                                    \
    if (!IsOfTheTool(__builtin_return_address(0)))                                                 \
        return next passed;                                                                        \
    return Counted({{#name, path, arguments}}, [&] { return __VA_ARGS__; })
// A second name of the same entry point: the large-file variants are the same calls on 64 bits.
#define SAME(other, name) asm(".globl " #other "\n.set " #other ", " #name "\n")

namespace {

OpenFile Opened(int fd) {
    const auto found = session->descriptors.find(fd);
    return found == session->descriptors.end() ? OpenFile{"-", 0, Node::NONE} : found->second;
}

// Device nodes are known by what the path leads to, so that they may be symbolic links.
Node NodeOf(const char* path) {
    const std::pair<Node, const char*> nodes[] = {{Node::MMC, "/dev/block/mmcblk0"},
                                                  {Node::SCSI, "/dev/block/sdc"},
                                                  {Node::GKI, "/proc/bootdevice/ffu"}};
    std::error_code status;
    for (const auto& [node, place] : nodes) {
        if (IsPhonePath(path) &&
            std::filesystem::equivalent(HostPath(path), HostPath(place), status)) {
            return node;
        }
    }
    return Node::NONE;
}

// The host's file system may not take direct I/O; Misaligned checks what a phone's would demand.
int OpenCall(const char* function, const char* path, int flags, mode_t mode) {
    NEXT(open);
    std::string arguments = Text("flags=0x%x", static_cast<unsigned>(flags));
    arguments += (flags & O_CREAT) != 0 ? Text(" mode=0%o", mode) : "";
    return Counted({{function, path, arguments}}, [&] {
        const int kept = IsPhonePath(path) ? flags & ~O_DIRECT : flags;
        const int fd = next(HostPath(path).c_str(), kept, mode);
        if (fd >= 0) {
            session->descriptors[fd] = {path, flags, NodeOf(path)};
        }
        return fd;
    });
}

bool Misaligned(int fd, const OpenFile& file, const void* data, size_t count) {
    const auto place = reinterpret_cast<uintptr_t>(data) | count;
    return (file.flags & O_DIRECT) != 0 &&
           (place | static_cast<size_t>(lseek(fd, 0, SEEK_CUR))) % 512 != 0;
}

// The host's path of a file that is about to be removed: a power cut may bring it back.
std::string KeptPath(const char* path) {
    namespace fs = std::filesystem;
    const std::string folder = session->phone.directory + REMOVED_FOLDER;
    std::string host = HostPath(path);
    std::error_code status;
    if (fs::path(path).parent_path() == "/data/vendor/fw" && fs::is_regular_file(host, status)) {
        const fs::path kept = folder + fs::path(path).filename().string() + REMOVED_SUFFIX;
        if (fs::create_directory(folder, status); !status) {
            fs::remove(kept, status);
            fs::create_hard_link(host, kept, status);
        }
        if (status) {
            throw std::system_error(status, kept);
        }
    }
    return host;
}

// For a lambda's last line: an error number becomes errno and -1.
int Failing(int error) {
    errno = error;
    return error != 0 ? -1 : 0;
}

// A request to the storage device, which the faults know by its name.
int DeviceCall(int fd, const OpenFile& file, unsigned long number, void* argument) {
    auto* scsi = static_cast<sg_io_hdr*>(argument);
    auto* mmc = static_cast<mmc_ioc_cmd*>(argument);
    const Request request = number == SG_IO ? DescribeScsi(*scsi)
                            : number == MMC_IOC_CMD
                                ? DescribeMmc(*mmc)
                                : DescribeScsiReset(*static_cast<int*>(argument));
    const char* name = number == SG_IO         ? "SG_IO"
                       : number == MMC_IOC_CMD ? KindName(request.kind)
                                               : "SG_SCSI_RESET";
    Reply reply;
    Call call{{"ioctl", file.path, Text("fd=%d request=%s", fd, name)}, name, &reply};
    call.request = request;
    return Counted(call, [&] {
        if (number == SG_SCSI_RESET) {
            reply.taken = Taken::WHOLE;
            return 0;
        }
        return Failing(number == SG_IO ? AnswerScsi(session->phone, session->scsiRequests++,
                                                    file.flags, *scsi, reply)
                                       : AnswerMmc(session->phone, file.flags, *mmc, reply));
    });
}

template <typename Perform> ssize_t ReadCall(int fd, void* data, size_t count, Perform perform) {
    const OpenFile file = Opened(fd);
    Call call{{"read", file.path, Text("fd=%d count=%zu", fd, count)}};
    call.count = &count;
    return Counted(call, [&]() -> ssize_t {
        return Misaligned(fd, file, data, count) ? Failing(EINVAL) : perform(count);
    });
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {
int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list more;
        va_start(more, flags);
        mode = va_arg(more, mode_t);
        va_end(more);
    }
    PASS_OTHERS(open, path, flags, mode);
    return OpenCall("open", path, flags, mode);
}
SAME(open64, open);
SAME(__open_2, open); // the checked variant, without a mode
SAME(__open64_2, open);

int creat(const char* path, mode_t mode) {
    PASS_OTHERS(creat, path, mode);
    return OpenCall("creat", path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}
SAME(creat64, creat);

int access(const char* path, int mode) noexcept {
    COUNTED(access, (path, mode), path, Text("mode=%d", mode), next(HostPath(path).c_str(), mode));
}

ssize_t read(int fd, void* data, size_t count) {
    PASS_OTHERS(read, fd, data, count);
    return ReadCall(fd, data, count, [&](size_t kept) { return next(fd, data, kept); });
}

// The checked variant that _FORTIFY_SOURCE calls; no header declares it for a build without it.
ssize_t __read_chk(int fd, void* data, size_t count, size_t size);
ssize_t __read_chk(int fd, void* data, size_t count, size_t size) {
    PASS_OTHERS(__read_chk, fd, data, count, size);
    return ReadCall(fd, data, count, [&](size_t kept) { return next(fd, data, kept, size); });
}

ssize_t write(int fd, const void* data, size_t count) {
    PASS_OTHERS(write, fd, data, count);
    const OpenFile file = Opened(fd);
    const size_t asked = count;
    Call call{{"write", file.path, Text("fd=%d count=%zu", fd, count)}};
    call.count = &count;
    Reply reply;
    if (file.node == Node::GKI) {
        call.request = DescribeGkiWrite(asked);
        call.reply = &reply;
    }
    return Counted(call, [&]() -> ssize_t {
        if (file.node == Node::GKI) {
            TakeGkiImage(session->phone, {static_cast<const char*>(data), count},
                         count == asked && asked > 0, reply);
            return static_cast<ssize_t>(count);
        }
        if (Misaligned(fd, file, data, count)) {
            return Failing(EINVAL);
        }
        // That fewer bytes have room is this machine's.
        ssize_t piece = 0;
        for (size_t written = 0; written < count; written += static_cast<size_t>(piece)) {
            piece = next(fd, static_cast<const char*>(data) + written, count - written);
            if (piece <= 0) {
                return piece < 0 ? piece : Failing(ENOSPC);
            }
        }
        return static_cast<ssize_t>(count);
    });
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
    COUNTED(lseek, (fd, offset, whence), Opened(fd).path,
            Text("fd=%d offset=%ld whence=%d", fd, offset, whence), next(fd, offset, whence));
}
SAME(lseek64, lseek);

int fsync(int fd) {
    COUNTED(fsync, (fd), Opened(fd).path, Text("fd=%d", fd), next(fd));
}

int close(int fd) {
    PASS_OTHERS(close, fd);
    Call call{{"close", Opened(fd).path, Text("fd=%d", fd)}};
    call.releases = true; // Linux gives the descriptor back even if it reports an error
    return Counted(call, [&] {
        session->descriptors.erase(fd);
        return next(fd);
    });
}

int fstat(int fd, struct stat* status) noexcept {
    PASS_OTHERS(fstat, fd, status);
    const OpenFile file = Opened(fd);
    return Counted({{"fstat", file.path, Text("fd=%d", fd)}}, [&] {
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
    return Counted(
        {{"mmap", Opened(fd).path,
          Text("fd=%d size=%zu protection=%d flags=%d offset=%ld", fd, size, protection, flags,
               offset)}},
        [&] { return next(place, size, protection, flags, fd, offset); }, MAP_FAILED);
}
SAME(mmap64, mmap);

int munmap(void* place, size_t size) noexcept {
    COUNTED(munmap, (place, size), "-", Text("pointer=%p size=%zu", place, size),
            next(place, size));
}

int remove(const char* path) noexcept {
    COUNTED(remove, (path), path, "", next(KeptPath(path).c_str()));
}

int unlink(const char* path) noexcept {
    COUNTED(unlink, (path), path, "", next(KeptPath(path).c_str()));
}

int mkdir(const char* path, mode_t mode) noexcept {
    COUNTED(mkdir, (path, mode), path, Text("mode=%u", mode), next(HostPath(path).c_str(), mode));
}

// A phone path resolves to the phone's own path; a link that leads out of the phone leads nowhere.
char* realpath(const char* path, char* resolved) noexcept {
    PASS_OTHERS(realpath, path, resolved);
    return Counted({{"realpath", path, ""}}, [&]() -> char* {
        const size_t root = IsPhonePath(path) ? session->phone.directory.size() : 0;
        char whole[PATH_MAX];
        if (next(HostPath(path).c_str(), whole) == nullptr) {
            return nullptr;
        }
        if (session->phone.directory.compare(0, root, whole, root) != 0) {
            errno = ENOENT;
            return nullptr;
        }
        const char* inside = whole + root;
        return resolved == nullptr
                   ? strdup(inside)
                   : static_cast<char*>(memcpy(resolved, inside, strlen(inside) + 1));
    });
}
SAME(__realpath_chk, realpath); // the checked variant, without the size

int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list more;
    va_start(more, request);
    void* argument = va_arg(more, void*);
    va_end(more);
    PASS_OTHERS(ioctl, fd, request, argument);
    const OpenFile file = Opened(fd);
    const bool isDevices = file.node == Node::SCSI
                               ? request == SG_IO || request == SG_SCSI_RESET
                               : file.node == Node::MMC && request == MMC_IOC_CMD;
    if (argument != nullptr && isDevices) {
        return DeviceCall(fd, file, request, argument);
    }
    return Counted({{"ioctl", file.path, Text("fd=%d request=0x%lx", fd, request)}},
                   [&] { return next(fd, request, argument); });
}

void* calloc(size_t count, size_t size) noexcept {
    COUNTED(calloc, (count, size), "-", Text("count=%zu size=%zu", count, size), next(count, size));
}

void* memalign(size_t alignment, size_t size) noexcept {
    COUNTED(memalign, (alignment, size), "-", Text("alignment=%zu size=%zu", alignment, size),
            next(alignment, size));
}

// The only call here that returns its error number; errno is left alone.
int posix_memalign(void** place, size_t alignment, size_t size) noexcept {
    PASS_OTHERS(posix_memalign, place, alignment, size);
    const int errnoBefore = errno;
    const int result =
        Counted({{"posix_memalign", "-", Text("alignment=%zu size=%zu", alignment, size)}},
                [&] { return Failing(next(place, alignment, size)); });
    const int status = result == -1 ? errno : result;
    errno = errnoBefore;
    return status;
}

int gettimeofday(timeval* now, void* zone) noexcept {
    PASS_OTHERS(gettimeofday, now, zone);
    return Counted({{"gettimeofday", "-", ""}}, [&] {
        const int result = next(now, zone);
        *now = session->phone.description.clock.value_or(*now);
        return result;
    });
}

time_t time(time_t* now) noexcept {
    PASS_OTHERS(time, now);
    return Counted({{"time", "-", ""}}, [&] {
        const auto& clock = session->phone.description.clock;
        const time_t seconds = clock ? clock->tv_sec : next(nullptr);
        if (now != nullptr) {
            *now = seconds;
        }
        return seconds;
    });
}

tm* localtime(const time_t* seconds) noexcept {
    COUNTED(localtime, (seconds), "-", Text("seconds=%ld", *seconds), next(seconds));
}

char* ctime(const time_t* seconds) noexcept {
    COUNTED(ctime, (seconds), "-", Text("seconds=%ld", *seconds), next(seconds));
}

unsigned sleep(unsigned seconds) {
    COUNTED(sleep, (seconds), "-", Text("seconds=%u", seconds), 0U);
}

FILE* fopen(const char* path, const char* mode) {
    PASS_OTHERS(fopen, path, mode);
    return Counted({{"fopen", path, "mode=" + Word(mode)}}, [&] {
        FILE* stream = next(HostPath(path).c_str(), mode);
        if (stream != nullptr) {
            session->descriptors[fileno(stream)] = {path, 0, Node::NONE};
        }
        return stream;
    });
}
SAME(fopen64, fopen);

char* fgets(char* line, int size, FILE* stream) {
    COUNTED(fgets, (line, size, stream), Opened(fileno(stream)).path, "", next(line, size, stream));
}

int fclose(FILE* stream) {
    PASS_OTHERS(fclose, stream);
    Call call{{"fclose", Opened(fileno(stream)).path, Text("pointer=%p", stream)}};
    call.releases = true;
    return Counted(call, [&] {
        session->descriptors.erase(fileno(stream));
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
    Call call{{LOG_FUNCTION, "-",
               Text("priority=%d tag=", priority) + (tag != nullptr ? Word(tag) : "-")}};
    call.message = text;
    return Counted(call, [] { return 1; });
}
}
#pragma GCC visibility pop
