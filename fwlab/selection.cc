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

template <class Takes> const Entry* FirstEntry(const Package& package, Takes takes) {
    const auto found = std::find_if(package.entries.begin(), package.entries.end(),
                                    [&](const Entry& e) { return e.bodyFits && takes(e); });
    return found == package.entries.end() ? nullptr : &*found;
}

Choice SelectEmmc(const Package& package, const Identity& identity) {
    const auto device = HeaderOf<EmmcFwHeader>(identity);
    const Entry* entry = FirstEntry(package, [&](const Entry& candidate) {
        return EmmcEntryMatches(device, HeaderOf<EmmcFwHeader>(candidate.identity));
    });
    if (entry == nullptr) {
        return {nullptr, false, "no entry has its manufacturer, product name and EXT_CSD_REV"};
    }
    if (Get(entry->identity, EMMC.revision) == Get(identity, EMMC.revision)) {
        return {entry, false, "its revision is the one that runs"};
    }
    if (device.emmcRev < EXT_CSD_REV_5_0) {
        return {entry, false, "the device is older than eMMC 5.0: the update fails"};
    }
    return {entry, true, "its revision is another than the one that runs"};
}

// The device as the UFS update sees it.
UfsFwHeader UfsDevice(const Identity& identity) {
    auto device = HeaderOf<UfsFwHeader>(identity);
    UpdateProductName(device);
    return device;
}

Choice SelectUfs(const Package& package, const Identity& identity) {
    const UfsFwHeader device = UfsDevice(identity);
    const Entry* entry = FirstEntry(package, [&](const Entry& candidate) {
        return UfsEntryMatches(device, HeaderOf<UfsFwHeader>(candidate.identity));
    });
    if (entry == nullptr) {
        return {nullptr, false, "no entry has its manufacturer and a product name that agrees"};
    }
    if (FwVerCheck(device, HeaderOf<UfsFwHeader>(entry->identity)) != 0) {
        return {entry, false, "its revision is not newer than the one that runs"};
    }
    return {entry, true, "its revision is newer than the one that runs"};
}

// Whether update is what entry promises to device, which it describes.
bool IsMeant(const Entry& entry, const Identity& device, const Choice& update) {
    if (update.entry == nullptr || update.entry == &entry) {
        return true; // at least no other one
    }
    const Field& revision = device.layout->revision;
    const bool isRenamed =
        device.layout == &UFS &&
        memcmp(UfsDevice(device).ufsPnm, Get(device, UFS.name).data(), UFS.name.size) != 0;
    return isRenamed && Get(update.entry->identity, revision) == Get(entry.identity, revision);
}

// Why device, which entry describes, would not get it; empty if it would.
std::string WhyNotApplied(const Package& package, const Entry& entry, const Identity& device) {
    const Choice preCheck = PreCheck(package, device);
    // Another than this one comes earlier: this one has the name, too. Its revision is recorded.
    const Field& revision = device.layout->revision;
    if (Get(preCheck.entry->identity, revision) != Get(entry.identity, revision)) {
        return "shadowed, the pre-check takes " + Title(*preCheck.entry);
    }
    if (!preCheck.goesOn) {
        return "the pre-check takes " + Title(*preCheck.entry) + ": " + preCheck.reason;
    }
    const Choice update = SelectForUpdate(package, device);
    if (!IsMeant(entry, device, update)) {
        return "shadowed, the update takes " + Title(*update.entry);
    }
    return update.goesOn ? "" : "the update finds nothing to do: " + update.reason;
}

// The same for each base revision.
std::string WhyNotApplied(const Package& package, const Entry& entry) {
    const Field& field = package.layout->revision;
    const auto base = BaseRevisionsOf(entry.identity);
    // From any: try one that is older than texts are, and not the entry's own.
    const bool isTaken = Get(entry.identity, field) == std::string(field.size, '\1');
    const char older = isTaken ? '\2' : '\1';
    for (const std::string& revision : base.value_or(Texts{std::string(field.size, older)})) {
        Identity device = entry.identity;
        Set(device, field, revision);
        const std::string why = WhyNotApplied(package, entry, device);
        if (!why.empty()) {
            return (base ? "from " + Quoted(revision) + ": " : "") + why;
        }
    }
    return base && base->empty() ? "no device can have one of its base revisions" : "";
}

} // namespace

Choice PreCheck(const Package& package, const Identity& device) {
    const Layout& layout = *device.layout;
    const std::string name = Get(device, layout.name);
    DeviceInfo info = {};
    info.type = &layout == &UFS ? DEVICE_UFS : DEVICE_EMMC;
    name.copy(info.pnm, PNM_SIZE);
    Get(device, layout.revision).copy(info.localFwRev, REV_SIZE);
    char rev[REV_SIZE + 1] = {};
    uint8_t baseRevs[BASE_REVS_SIZE] = {};
    (void)TakePhoneMessages();
    // Its reader is asked about each header by itself and, where the package goes on, one byte
    // more.
    const Entry* entry = FirstEntry(package, [&](const Entry& candidate) {
        Identity alone = candidate.identity;
        Set(alone, layout.bodySize, "");
        alone.header.append(candidate.body < package.size ? 1 : 0, '\0');
        const auto* bytes = reinterpret_cast<const uint8_t*>(alone.header.data());
        return (&layout == &UFS ? GetUfsRev : GetEmmcRev)(bytes, alone.header.size(), info.pnm, rev,
                                                          baseRevs) == 0;
    });
    if (entry == nullptr) {
        return {nullptr, false, "no entry has the product name " + Quoted(name)};
    }
    if (IsSameRev(info.localFwRev, rev)) {
        return {entry, false, "its revision begins like the one that runs: taken for equal"};
    }
    const bool isAdmitted = CheckBaseRev(info, baseRevs) == 0;
    return {entry, isAdmitted,
            isAdmitted ? "its revision is another, to be applied from the one that runs"
                       : "the revision that runs is none of its base revisions",
            TakePhoneMessages()};
}

Choice SelectForUpdate(const Package& package, const Identity& device) {
    (void)TakePhoneMessages();
    Choice choice = (device.layout == &UFS ? SelectUfs : SelectEmmc)(package, device);
    choice.messages = TakePhoneMessages();
    return choice;
}

std::optional<Texts> BaseRevisionsOf(const Identity& identity) {
    const std::string slots = Get(identity, identity.layout->baseRevs);
    const size_t size = identity.layout->revision.size;
    if (slots == std::string(BASE_REVS_SIZE, '\xFF')) {
        return {};
    }
    Texts revisions;
    for (size_t slot = 0; slot < BASE_REVS_SIZE; slot += size) {
        const std::string revision = slots.substr(slot, size);
        if (revision[0] != '\0' && revision != std::string(size, '\xFF') &&
            std::count(revisions.begin(), revisions.end(), revision) == 0) {
            revisions.push_back(revision);
        }
    }
    return revisions;
}

Texts SizeFindings(const Entry& entry) {
    const bool isUfs = entry.identity.layout == &UFS;
    if (entry.bodySize == 0) {
        return {"the body is empty"};
    }
    if (!isUfs && entry.bodySize > NORMAL_MODE_IMAGE_MAX) {
        return {LARGE_EMMC_BODY};
    }
    if (isUfs && entry.bodySize > TRANSFER_SIZE) {
        return {"the body is larger than 8 MiB: the device gets its beginning only"};
    }
    return {};
}

Texts FindingsOf(const Package& package, const Entry& entry) {
    const Layout& layout = *package.layout;
    Texts findings = SizeFindings(entry);
    const auto add = [&](bool isFound, const std::string& text) {
        findings.insert(findings.end(), isFound ? 1 : 0, text);
    };
    Texts revisions = BaseRevisionsOf(entry.identity).value_or(Texts());
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
    add(!entry.bodyFits, "the body reaches past the end: every reader passes over the entry");
    const std::string why = entry.bodyFits && !isLast ? WhyNotApplied(package, entry) : "";
    add(!why.empty(), why);
    return findings;
}
