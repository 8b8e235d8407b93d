#include "fwlab/phone/pulled_state.h"

#include "fwlab/base/stop.h"
#include "fwlab/phone/state_directory.h"
#include "simphone/files.h"

#include <cerrno>
#include <filesystem>

namespace fs = std::filesystem;

StateDirectory ReadPulledState(const std::string& directory) {
    StateDirectory state = {true, {}};
    for (const std::string& name : StateFileNames()) {
        const std::string path = fs::path(directory) / name;
        std::error_code error;
        const fs::file_status status = fs::symlink_status(path, error);
        if (status.type() == fs::file_type::not_found) {
            continue;
        }
        if (!fs::is_regular_file(status)) {
            throw Stop{2,
                       path + ": " + (fs::exists(status) ? "is no regular file" : error.message())};
        }
        if (!ReadWholeFile(path, state.files[name])) {
            throw FailureAt(path, errno);
        }
    }
    if (state.files.empty()) {
        throw Stop{2, directory + ": has no file of a run: it is no state directory"};
    }
    return state;
}
