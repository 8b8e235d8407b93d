#include "fwlab/base/output.h"

#include "fwlab/base/stop.h"
#include "fwlab/base/work_folder.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

void CheckOutput(const std::string& path) {
    std::error_code error;
    const fs::file_status there = fs::symlink_status(path, error);
    Require(!fs::exists(there) || fs::is_regular_file(there), 2, path + ": is no regular file");
    const std::string folder = fs::path(path).parent_path();
    if (access(folder.empty() ? "." : folder.c_str(), W_OK) != 0) {
        throw FailureAt(path, errno);
    }
}

void WriteOutput(const std::string& path, std::string_view bytes) {
    CheckOutput(path);
    const std::string temporary = path + "." + std::to_string(getpid());
    FILE* file = fopen(temporary.c_str(), "wxe"); // x: a new file
    if (file == nullptr) {
        throw FailureAt(path, errno);
    }
    const bool isWritten = fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() &&
                           fflush(file) == 0 && fsync(fileno(file)) == 0;
    int reason = isWritten ? 0 : errno;
    reason = fclose(file) != 0 && reason == 0 ? errno : reason;
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
    const bool isThere = folder.empty() || fs::exists(fs::symlink_status(folder, error));
    Require(!isThere, 2, path + ": exists already");
    const WorkFolder work(folder + ".");
    const std::string made = work.path + "/made";
    fs::create_directory(made);
    fill(made);
    StopIfInterrupted();
    fs::rename(made, folder);
}

void RequireOther(const std::string& path, const std::string& input) {
    std::error_code error;
    const bool isSame = fs::equivalent(path, input, error);
    Require(!isSame || error, 2, path + ": is an input of this command");
}
