// Asks the phone's own routines what they make of a package. Called by every command that looks
// into one. Nothing here fails.
#include "fwlab/selection.h"

#include "emmc/emmc_command.h"
#include "emmc/emmc_register.h"
#include "emmc/emmc_update.h"
#include "run/package_check.h"
#include "ufs/ufs_identity.h"
#include "ufs/ufs_selection.h"
#include "ufs/ufs_write_buffer.h"

#include <algorithm>
#include <cstring>

namespace {

template <class Header> Header HeaderOf(const Identity& identity) {
    Header header;
    memcpy(&header, identity.header.data(), sizeof(header));
    return header;
}

// The device as the UFS update sees it.
UfsFwHeader UfsDevice(const Identity& identity) {
    auto device = HeaderOf<UfsFwHeader>(identity);
    UpdateProductName(device);
    return device;
}

bool IsRenamed(const Identity& device) {
    return device.layout == &UFS &&
           memcmp(UfsDevice(device).ufsPnm, Get(device, UFS.name).data(), UFS.name.size) != 0;
}

// Whether the pre-check takes this candidate. Its reader is asked about the header and, where the
// package goes on, one byte more: no later entry can answer for this one.
bool PreCheckTakes(const Package& package, const Entry& entry, const DeviceInfo& device, char* rev,
                   uint8_t* baseRevs) {
    Identity alone = entry.identity;
    Set(alone, package.layout->bodySize, std::string(4, '\0'));
    alone.header.append(entry.body < package.size ? 1 : 0, '\0');
    const auto getRev = package.layout == &UFS ? GetUfsRev : GetEmmcRev;
    return entry.bodyFits && getRev(reinterpret_cast<const uint8_t*>(alone.header.data()),
                                    alone.header.size(), device.pnm, rev, baseRevs) == 0;
}

Choice SelectEmmc(const Package& package, const Identity& identity) {
    const auto device = HeaderOf<EmmcFwHeader>(identity);
    for (const Entry& entry : package.entries) {
        const auto header = HeaderOf<EmmcFwHeader>(entry.identity);
        if (!entry.bodyFits || !EmmcEntryMatches(device, header)) {
            continue;
        }
        if (memcmp(device.emmcFwRev, header.emmcFwRev, sizeof(header.emmcFwRev)) == 0) {
            return {&entry, false, "its revision is the one that runs"};
        }
        if (device.emmcRev < EXT_CSD_REV_5_0) {
            return {&entry, false, "the device is older than eMMC 5.0: the update fails"};
        }
        return {&entry, true, "its revision is another than the one that runs"};
    }
    return {nullptr, false, "no entry has its manufacturer, product name and EXT_CSD_REV"};
}

Choice SelectUfs(const Package& package, const Identity& identity) {
    const UfsFwHeader device = UfsDevice(identity);
    for (const Entry& entry : package.entries) {
        const auto header = HeaderOf<UfsFwHeader>(entry.identity);
        if (!entry.bodyFits || !UfsEntryMatches(device, header)) {
            continue;
        }
        if (FwVerCheck(device, header) != 0) {
            return {&entry, false, "its revision is not newer than the one that runs"};
        }
        return {&entry, true, "its revision is newer than the one that runs"};
    }
    return {nullptr, false, "no entry has its manufacturer and a product name that agrees"};
}

// Why device, which entry describes, would not get it; empty if it would.
std::string WhyNotApplied(const Package& package, const Entry& entry, const Identity& device) {
    const Choice preCheck = PreCheck(package, device);
    if (preCheck.entry != &entry) { // then an earlier one: this one has the name, too
        return "shadowed, the pre-check takes " + Title(*preCheck.entry);
    }
    if (!preCheck.goesOn) {
        return "the pre-check finds nothing to do: " + preCheck.reason;
    }
    const Choice update = SelectForUpdate(package, device);
    const Field& revision = device.layout->revision;
    const bool isMeant = update.entry == &entry ||
                         (update.entry != nullptr && IsRenamed(device) &&
                          Get(update.entry->identity, revision) == Get(entry.identity, revision));
    if (!isMeant && update.entry != nullptr) {
        return "shadowed, the update takes " + Title(*update.entry);
    }
    return update.goesOn ? "" : "the update finds nothing to do: " + update.reason;
}

// The same for each base revision.
std::string WhyNotApplied(const Package& package, const Entry& entry) {
    BaseRevisions base = BaseRevisionsOf(entry.identity);
    if (base.isAny) { // try one that is older and not the beginning of the entry's own
        const bool isTaken = Get(entry.identity, package.layout->revision)[0] == 1;
        base.revisions = {std::string(package.layout->revision.size, isTaken ? '\2' : '\1')};
    }
    for (const std::string& revision : base.revisions) {
        Identity device = entry.identity;
        Set(device, package.layout->revision, revision);
        const std::string why = WhyNotApplied(package, entry, device);
        if (!why.empty()) {
            return (base.isAny ? "" : "from " + Quoted(revision) + ": ") + why;
        }
    }
    return base.revisions.empty() ? "no device can have one of its base revisions" : "";
}

} // namespace

Choice PreCheck(const Package& package, const Identity& device) {
    const Layout& layout = *device.layout;
    const std::string name = Get(device, layout.name);
    const std::string running = Get(device, layout.revision);
    DeviceInfo info = {};
    info.type = &layout == &UFS ? DEVICE_UFS : DEVICE_EMMC;
    std::copy(name.begin(), name.end(), info.pnm);
    std::copy(running.begin(), running.end(), info.localFwRev);
    char rev[REV_SIZE + 1] = {};
    uint8_t baseRevs[BASE_REVS_SIZE] = {};
    (void)TakePhoneMessages();
    for (const Entry& entry : package.entries) {
        if (!PreCheckTakes(package, entry, info, rev, baseRevs)) {
            continue;
        }
        if (IsSameRev(info.localFwRev, rev)) {
            return {&entry, false, "its revision begins like the one that runs: taken for equal"};
        }
        const bool isAdmitted = CheckBaseRev(info, baseRevs) == 0;
        return {&entry, isAdmitted,
                isAdmitted ? "its revision is another, to be applied from the one that runs"
                           : "the revision that runs is none of its base revisions",
                TakePhoneMessages()};
    }
    return {nullptr, false, "no entry has the product name " + Quoted(name)};
}

Choice SelectForUpdate(const Package& package, const Identity& device) {
    (void)TakePhoneMessages();
    Choice choice = (device.layout == &UFS ? SelectUfs : SelectEmmc)(package, device);
    choice.messages = TakePhoneMessages();
    return choice;
}

BaseRevisions BaseRevisionsOf(const Identity& identity) {
    const std::string slots = Get(identity, identity.layout->baseRevs);
    const size_t size = identity.layout->revision.size;
    BaseRevisions base = {slots == std::string(BASE_REVS_SIZE, '\xFF'), {}};
    for (size_t slot = 0; slot < BASE_REVS_SIZE; slot += size) {
        const std::string revision = slots.substr(slot, size);
        if (revision[0] != '\0' && revision != std::string(size, '\xFF') &&
            std::count(base.revisions.begin(), base.revisions.end(), revision) == 0) {
            base.revisions.push_back(revision);
        }
    }
    return base;
}

std::vector<std::string> FindingsOf(const Package& package, const Entry& entry) {
    const Layout& layout = *package.layout;
    std::vector<std::string> findings;
    const auto add = [&](bool isFound, const std::string& text) {
        if (isFound) {
            findings.push_back(text);
        }
    };
    std::vector<std::string> revisions = BaseRevisionsOf(entry.identity).revisions;
    revisions.push_back(Get(entry.identity, layout.revision));
    for (const std::string& revision : revisions) {
        const std::string text = revision.substr(0, revision.find('\0'));
        add(text.empty(),
            "a revision that begins with a zero byte: to the phone it equals every other");
        add(text.find('\n') != std::string::npos,
            "a revision with a line feed: the phone cannot read the record of its attempt back");
    }
    const bool isLast = &layout == &EMMC && entry.body == package.size;
    add(isLast, "at the last offset, which the pre-check does not examine");
    add(entry.bodySize == 0, "the body is empty");
    add(&layout == &EMMC && entry.bodySize > NORMAL_MODE_IMAGE_MAX, LARGE_EMMC_BODY);
    add(&layout == &UFS && entry.bodySize > TRANSFER_SIZE,
        "the body is larger than 8 MiB: the device gets its beginning only");
    add(!entry.bodyFits, "the body reaches past the end: every reader passes over the entry");
    const bool isRead = entry.bodyFits && !isLast;
    const std::string why = isRead ? WhyNotApplied(package, entry) : "";
    add(!why.empty(), why);
    return findings;
}
