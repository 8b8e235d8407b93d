// What survives a power cut, worked out from the calls of the run. Called when the tool has ended;
// a state that cannot be written leaves the directory as far as it got.
#include "simphone/power_loss.h"

#include "simphone/files.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <optional>

namespace fs = std::filesystem;

namespace {

const std::string STATE_DIR = "/data/vendor/fw";

using Content = std::optional<std::string>; // none: the file is missing

// One file's changes since it was last on the storage whole: before the run, or when it was synced.
struct Changes {
    bool isThere = false;
    size_t size = 0;
    bool isMade = false, isRemoved = false, isWritten = false;
    bool isSynced = false; // in this run, with so many bytes
    size_t syncedSize = 0;
    bool isRemade = false; // after the sync: what it had then is not kept
};

struct History {
    bool isDirectoryMade = false; // and no file in it was synced
    std::map<std::string, Changes> files;
};

void Note(const CallEntry& call, Changes& file) {
    const bool opens = call.function == "open" || call.function == "creat";
    if (opens && (!file.isThere || (OpenFlags(call) & O_TRUNC) != 0)) {
        file.isRemade = file.isRemade || file.isSynced;
        file.isThere = file.isMade = true;
        file.size = 0;
    } else if (call.function == "write" && call.result != "0") {
        file.size += std::stoul(call.result);
        file.isWritten = true;
    } else if (call.function == "remove" || call.function == "unlink") {
        file.isRemade = file.isRemade || file.isSynced;
        file.isThere = false;
        file.isRemoved = true;
    }
}

History HistoryOf(const StateDirectory& before, const std::vector<CallEntry>& calls) {
    History history;
    for (const auto& [name, content] : before.files) {
        history.files[name] = {true, content.size()};
    }
    for (const CallEntry& call : calls) {
        if (!call.error.empty() || call.replaced) {
            continue; // nothing was done
        }
        history.isDirectoryMade |= call.function == "mkdir" && call.path == STATE_DIR;
        const fs::path path = call.path;
        if (path.parent_path() != STATE_DIR) {
            continue;
        }
        Changes& file = history.files[path.filename()];
        if (call.function == "fsync") {
            history.isDirectoryMade = false;
            file = {file.isThere, file.size, false, false, false, true, file.size, false};
        } else {
            Note(call, file);
        }
    }
    return history;
}

// What becomes of one file, and by which losses; the first one is none.
using Fates = std::vector<std::pair<std::optional<Loss>, Content>>;

Content Find(const std::map<std::string, std::string>& files, const std::string& name) {
    const auto found = files.find(name);
    return found == files.end() ? Content() : Content(found->second);
}

Fates FatesOf(const Changes& file, const Content& before, const Content& after,
              const Content& removed) {
    Fates fates = {{std::nullopt, after}};
    const Content old = file.isSynced ? after.value_or("").substr(0, file.syncedSize) : before;
    if ((file.isMade || file.isRemoved || file.isWritten) && !file.isRemade) {
        fates.emplace_back(Loss::LOST, old);
    }
    if (file.isMade) {
        fates.emplace_back(Loss::EMPTY, "");
    }
    if (file.isRemoved && file.isThere && (old || file.isRemade)) {
        fates.emplace_back(Loss::GONE, std::nullopt);
    }
    if (file.isMade && file.isRemoved && !file.isThere) {
        fates.emplace_back(Loss::BACK, removed);
    }
    const std::string kept = file.isMade ? "" : old.value_or("");
    const std::string written = (file.isThere ? after : removed).value_or("");
    if (file.isWritten && (file.isThere || file.isMade) && written.size() > kept.size()) {
        fates.emplace_back(Loss::ZEROS, kept + std::string(written.size() - kept.size(), '\0'));
    }
    return fates;
}

void Put(StateDirectory& state, const std::string& name, const Content& content) {
    if (content) {
        state.files[name] = *content;
    } else {
        state.files.erase(name);
    }
}

// By their names without the suffix, which each has.
std::map<std::string, std::string> ReadFiles(const fs::path& directory,
                                             const std::string& suffix = "") {
    std::map<std::string, std::string> files;
    if (!fs::is_directory(directory)) {
        return files;
    }
    for (const auto& entry : fs::directory_iterator(directory)) {
        if (fs::is_regular_file(entry.symlink_status())) {
            const std::string name = entry.path().filename();
            files[name.substr(0, name.size() - suffix.size())] = WholeFile(entry.path());
        }
    }
    return files;
}

} // namespace

StateDirectory ReadStateDirectory(const std::string& phone) {
    return {fs::is_directory(phone + STATE_DIR), ReadFiles(phone + STATE_DIR),
            ReadFiles(phone + REMOVED_FOLDER, REMOVED_SUFFIX)};
}

void WriteStateDirectory(const std::string& phone, const StateDirectory& state) {
    const fs::path directory = phone + STATE_DIR;
    for (const auto& [name, content] : ReadFiles(directory)) {
        fs::remove(directory / name);
    }
    if (!state.isThere) {
        fs::remove_all(directory);
    } else {
        fs::create_directories(directory);
    }
    for (const auto& [name, content] : state.files) {
        WriteWholeFile(directory / name, content);
    }
}

std::vector<Survival> Survivals(const StateDirectory& before, const StateDirectory& after,
                                const std::vector<CallEntry>& calls, bool isDistinct) {
    const History history = HistoryOf(before, calls);
    std::vector<Survival> survivals = {{{}, after}};
    for (const auto& [name, file] : history.files) {
        std::vector<Content> seen;
        std::vector<Survival> more;
        for (const auto& [loss, content] :
             FatesOf(file, Find(before.files, name), Find(after.files, name),
                     Find(after.removed, name))) {
            if (isDistinct && std::find(seen.begin(), seen.end(), content) != seen.end()) {
                continue;
            }
            seen.push_back(content);
            for (Survival survival : survivals) {
                if (loss) {
                    survival.losses[name] = *loss;
                    Put(survival.state, name, content);
                }
                more.push_back(survival);
            }
        }
        survivals = more;
    }
    if (history.isDirectoryMade) {
        survivals.push_back({{{".", Loss::LOST}}, {false, {}}});
    }
    return survivals;
}
