#include "fwlab/base/output.h"

#include "fwlab/base/stop.h"
#include "fwlab/base/work_folder.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// The mode that the umask leaves. Temporary files are made for their owner only.
mode_t Permitted(mode_t mode) {
    const mode_t mask = umask(0);
    (void)umask(mask);
    return mode & ~mask;
}

} // namespace

void CheckOutput(const std::string& path) {
    std::error_code error;
    const fs::file_status there = fs::symlink_status(path, error);
    if (fs::exists(there) && !fs::is_regular_file(there)) {
        throw Stop{2, path + ": is no regular file"};
    }
    const std::string folder = fs::path(path).parent_path();
    if (access(folder.empty() ? "." : folder.c_str(), W_OK) != 0) {
        throw FailureAt(path, errno);
    }
}

void WriteOutput(const std::string& path, std::string_view bytes) {
    CheckOutput(path);
    std::string temporary = path + ".XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        throw FailureAt(path, errno);
    }
    size_t done = 0;
    ssize_t count = 1;
    while (done < bytes.size() && count > 0) {
        count = write(fd, bytes.data() + done, bytes.size() - done);
        done += count > 0 ? static_cast<size_t>(count) : 0;
    }
    const bool isWritten =
        done == bytes.size() && fchmod(fd, Permitted(0666)) == 0 && fsync(fd) == 0;
    int reason = isWritten ? 0 : errno;
    reason = close(fd) != 0 && reason == 0 ? errno : reason;
    if (reason == 0 && rename(temporary.c_str(), path.c_str()) != 0) {
        reason = errno;
    }
    if (reason != 0) {
        unlink(temporary.c_str());
        throw FailureAt(path, reason);
    }
}

void MakeFolder(const std::string& path, const std::function<void(const std::string&)>& fill) {
    const std::string folder = path.substr(0, path.find_last_not_of('/') + 1);
    std::error_code error;
    if (folder.empty() || fs::exists(fs::symlink_status(folder, error))) {
        throw Stop{2, path + ": exists already"};
    }
    const HeldSignals held;
    std::string temporary = folder + ".XXXXXX";
    if (mkdtemp(temporary.data()) == nullptr) {
        throw FailureAt(path, errno);
    }
    try {
        fill(temporary);
        StopIfInterrupted();
        if (chmod(temporary.c_str(), Permitted(0777)) != 0 ||
            rename(temporary.c_str(), folder.c_str()) != 0) {
            throw FailureAt(path, errno);
        }
    } catch (...) {
        fs::remove_all(temporary, error);
        throw;
    }
}

void RequireOther(const std::string& path, const std::string& input) {
    std::error_code error;
    const bool isSame = fs::equivalent(path, input, error);
    if (isSame && !error) {
        throw Stop{2, path + ": is an input of this command"};
    }
}
