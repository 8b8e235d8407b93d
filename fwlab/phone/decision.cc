// Asks the phone's own routines, in the order of a run, what they make of a package. Nothing is
// decided here: what is told below are the answers of those routines and what follows from them.
#include "fwlab/phone/decision.h"

#include "fwlab/base/text.h"
#include "fwlab/package/spans.h"

#include "emmc/emmc_command.h"
#include "emmc/emmc_update.h"
#include "run/package_check.h"
#include "run/step.h"
#include "ufs/ufs_identity.h"
#include "ufs/ufs_selection.h"
#include "ufs/ufs_write_buffer.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace {

constexpr char EMPTY_BODY[] = "its body is empty: the device gets no firmware";
constexpr char LARGE_EMMC_BODY[] = "the body is larger than 1 MiB: only GKI mode takes it";
constexpr char LARGE_UFS_BODY[] =
    "the body is larger than 8 MiB: the device gets only its first 8 MiB";
constexpr char NO_BASE[] = "the running revision is not among its base revisions";
constexpr char UNREADABLE_RECORD[] = "the phone cannot parse the record, so the run stops";
constexpr char UNREADABLE_REVISION[] =
    "the running or the new revision has a line feed: the phone cannot parse the record of the "
    "attempt";
constexpr char EXT_CSD_REV_5_1 = 8;                     // JEDEC, the last one
constexpr size_t LINUX_UFS_TRANSFER_SIZE = 1024 * 1024; // ufshcd, since 5.19

template <class Header> Header HeaderOf(const Identity& identity) {
    Header header;
    memcpy(&header, identity.header.data(), sizeof(header));
    return header;
}

const Entry* EntryAt(const Package& package, size_t offset) {
    const auto found = std::find_if(package.entries.begin(), package.entries.end(),
                                    [&](const Entry& entry) { return entry.offset == offset; });
    return found == package.entries.end() ? nullptr : &*found;
}

DeviceInfo InfoOf(const Identity& identity) {
    DeviceInfo info = {};
    info.type = identity.layout == &UFS ? DEVICE_UFS : DEVICE_EMMC;
    Get(identity, identity.layout->name).copy(info.pnm, PNM_SIZE);
    Get(identity, identity.layout->revision).copy(info.localFwRev, REV_SIZE);
    return info;
}

// The device as the UFS update sees it.
UfsFwHeader UfsDevice(const Identity& identity) {
    auto device = HeaderOf<UfsFwHeader>(identity);
    UpdateProductName(device);
    return device;
}

// The product name that the update uses: it renames some devices.
std::string UpdateName(const Identity& device) {
    if (device.layout != &UFS) {
        return Get(device, device.layout->name);
    }
    const UfsFwHeader header = UfsDevice(device);
    return {reinterpret_cast<const char*>(header.ufsPnm), sizeof(header.ufsPnm)};
}

// Without the bytes at the end that the update takes for blanks.
std::string Trimmed(std::string name) {
    name.resize(name.find_last_not_of(std::string(" \r\n\0", 4)) + 1);
    return name;
}

std::string InCapitals(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(toupper(c)); });
    return name;
}

// Why no entry has the device's product name, with the nearest one.
std::string WhyNoName(const Package& package, const Identity& device) {
    const Field& field = device.layout->name;
    const std::string name = Get(device, field);
    const std::string named = "entry has the product name " + Quoted(name), why = "no " + named;
    for (const Entry& entry : package.entries) {
        const std::string other = Get(entry.identity, field);
        if (other == name) {
            return fmt::format("no usable {}: {} has no body inside the package", named,
                               Title(entry));
        }
        if (InCapitals(Trimmed(other)) == InCapitals(Trimmed(name))) {
            return fmt::format("{}: {} has {}, which differs only in blanks, zero bytes or case",
                               why, Title(entry), Quoted(other));
        }
    }
    const Layout& otherLayout = device.layout == &UFS ? EMMC : UFS;
    const bool isOther =
        package.entries.empty() &&
        !LookInto(package.path, package.bytes, package.size, otherLayout).entries.empty();
    return isOther ? fmt::format("{}: the package holds {} entries", why, otherLayout.title) : why;
}

Step PreCheck(const Package& package, const Identity& device, PackageRevs& revs) {
    (void)TakePhoneMessages();
    const DeviceInfo info = InfoOf(device);
    const int parsed = package.size == 0 ? ENTRY_NOT_FOUND
                                         : GetRevs(info, package.bytes.get(), package.size, revs);
    const int verdict = JudgeRevs(info, parsed, revs);
    const Entry* entry = parsed == 0
                             ? EntryAt(package, FindEntry(info, package.bytes.get(), package.size))
                             : nullptr;
    Step step = {"pre-check", verdict == STEP_DONE, entry, "", TakePhoneMessages()};
    if (entry == nullptr) {
        step.reason = WhyNoName(package, device);
    } else if (step.goesOn) {
        step.reason =
            "its revision is not the running one, and it may be applied to the running one";
    } else if (IsSameRev(info.localFwRev, revs.fwFileRev)) {
        step.reason = "the phone finds the entry's revision equal to the running one (it compares "
                      "only the beginning)";
    } else {
        step.reason = CheckBaseRev(info, revs.legalBaseRev) ? step.messages.back() : NO_BASE;
    }
    return step;
}

// How the entry and the device, which have the same product name, differ.
std::string Difference(const Entry& entry, const Identity& device) {
    for (const Field& field : {device.layout->manufacturer, device.layout->extCsdRev}) {
        const std::string here = Get(device, field), there = Get(entry.identity, field);
        if (here != there) {
            return fmt::format(
                "{} has {} {}, the device {}", Title(entry), field.key,
                field.size == 1 ? fmt::format("{}", static_cast<uint8_t>(there[0])) : Quoted(there),
                field.size == 1 ? fmt::format("{}", static_cast<uint8_t>(here[0])) : Quoted(here));
        }
    }
    return fmt::format("the update uses the product name {} for the device, and no entry has it",
                       Quoted(Trimmed(UpdateName(device))));
}

// seen is the pre-check's entry.
Step UpdateEmmc(const Package& package, const Device& device, const Entry& seen) {
    const auto header = HeaderOf<EmmcFwHeader>(device.identity);
    const uint8_t* body = nullptr;
    uint32_t bodySize = 0;
    const int status = EmmcFwhdrCheck(header, package.bytes.get(),
                                      static_cast<int32_t>(package.size), body, bodySize);
    Step step = {"update", false, nullptr, "", TakePhoneMessages()};
    if (body == nullptr) {
        step.reason = Difference(seen, device.identity);
        return step;
    }
    step.entry = EntryAt(package, static_cast<size_t>(body - package.bytes.get()) - sizeof(header));
    const bool isTooLarge = !device.gki && !FitsOneDownload(bodySize);
    step.reason = status != 0                        ? "its revision is running already"
                  : !IsEmmc50OrLater(header.emmcRev) ? "the device is older than eMMC 5.0"
                  : isTooLarge                       ? LARGE_EMMC_BODY
                  : bodySize == 0                    ? EMPTY_BODY
                                                     : "";
    step.goesOn = step.reason.empty();
    return step;
}

Step UpdateUfs(const Package& package, const Device& device, const Entry& seen) {
    const UfsFwHeader header = UfsDevice(device.identity);
    UfsSelection selection = {};
    const int status =
        SelectUfsFw(header, package.bytes.get(), static_cast<int32_t>(package.size), selection);
    Step step = {"update", false, nullptr, "", TakePhoneMessages()};
    if (status != 0) {
        step.reason = Difference(seen, device.identity);
        return step;
    }
    step.entry = EntryAt(package, selection.ufsCurrentFwOffset - sizeof(header));
    const uint32_t size = selection.ufsCurrentFwSize;
    const bool isRefused = device.maxHwSectorsKb > 0 && size > device.maxHwSectorsKb * 1024;
    step.reason = selection.verdict != 0 ? "its revision is not newer than the running one"
                  : isRefused ? fmt::format("its body is larger than the {} KiB that the "
                                            "phone's host takes in one request",
                                            device.maxHwSectorsKb)
                  : size > TRANSFER_SIZE ? LARGE_UFS_BODY
                  : size == 0            ? EMPTY_BODY
                                         : "";
    step.goesOn = step.reason.empty();
    return step;
}

// Whether the entry describes exactly this device, under the product name that the update uses, and
// may be applied from the running revision. The update itself does not check that.
bool IsFor(const Package& package, const Entry& entry, const Identity& device) {
    const Layout& layout = *device.layout;
    const auto same = [&](const Field& field) {
        return Get(entry.identity, field) == Get(device, field);
    };
    const std::string name = UpdateName(device);
    const bool isNamed = name == Get(device, layout.name)
                             ? same(layout.name)
                             : Trimmed(Get(entry.identity, layout.name)) == Trimmed(name);
    const std::string baseRevs = Get(entry.identity, layout.baseRevs);
    return isNamed && same(layout.manufacturer) && same(layout.extCsdRev) &&
           OuterEntry(package, entry) == nullptr &&
           CheckBaseRev(InfoOf(device), reinterpret_cast<const uint8_t*>(baseRevs.data()));
}

// Why a device that entry describes would not be sent exactly this entry; empty if it would.
std::string WhyNotSent(const Package& package, const Entry& entry, const Device& device) {
    const Field &revision = entry.identity.layout->revision, &name = entry.identity.layout->name;
    const std::string own = Get(entry.identity, revision);
    const Decision decision = Decide(package, device);
    const Entry* seen = decision.PreCheck();
    if (seen == nullptr) {
        return decision.why;
    }
    if (Get(seen->identity, revision) != own) {
        return fmt::format("{} comes first and has the same product name, so the phone looks at "
                           "its revision only: "
                           "put them into separate packages",
                           Title(*seen));
    }
    if (!decision.steps.front().goesOn) {
        return fmt::format("the pre-check selects {}: {}", Title(*seen), decision.why);
    }
    const Entry* sent = decision.sent;
    const bool isRenamed = UpdateName(device.identity) != Get(device.identity, name);
    const bool isRight =
        sent == nullptr || sent == &entry || (isRenamed && Get(sent->identity, revision) == own);
    if (!isRight) {
        if (Get(sent->identity, name) == Get(entry.identity, name)) {
            return fmt::format("{} comes first and is for the same devices", Title(*sent));
        }
        return isRenamed
                   ? fmt::format(
                         "the update selects {}: it uses the product name {} for the device",
                         Title(*sent), Quoted(Trimmed(UpdateName(device.identity))))
                   : fmt::format("the update selects {}: a blank in one product name matches any "
                                 "character in the other, so put the two entries into separate "
                                 "packages",
                                 Title(*sent));
    }
    return decision.verdict == Verdict::UPDATED
               ? ""
               : "a phone would use up its attempt: " + decision.why;
}

Step CheckRecord(const Record& record, const std::string& target) {
    const std::string last = fmt::format("the last attempt was from {} to {}", Quoted(record.base),
                                         Quoted(record.target));
    return {"record", record.isReadable && !IsOnRecord(record, target), nullptr,
            record.isReadable ? last : UNREADABLE_RECORD, record.messages};
}

// Sets the verdict of a decision whose steps were all taken.
void JudgeUpdate(const Package& package, const Identity& device, Decision& decision) {
    const Entry *seen = decision.PreCheck(), *sent = decision.sent;
    const Field& revision = device.layout->revision;
    const bool isRight = sent == nullptr ||
                         (sent == seen && OuterEntry(package, *seen) == nullptr) ||
                         (IsFor(package, *sent, device) &&
                          Get(sent->identity, revision) == Get(seen->identity, revision));
    const DeviceInfo info = InfoOf(device);
    if (!isRight) {
        decision.verdict = Verdict::WRONG_IMAGE;
        decision.why = sent == seen ? fmt::format("{} lies inside the image of {}", Title(*seen),
                                                  Title(*OuterEntry(package, *sent)))
                                    : fmt::format("the pre-check selects {}, the update selects {}",
                                                  Title(*seen), Title(*sent));
    } else if (!decision.steps.back().goesOn) {
        decision.verdict = Verdict::USED_UP;
        decision.why = decision.steps.back().reason;
    } else if (!ParseRecord(RecordText(info.pnm, info.localFwRev, *decision.recorded)).isReadable) {
        decision.verdict = Verdict::RECORD_UNREADABLE;
        decision.why = UNREADABLE_REVISION;
    } else {
        decision.verdict = Verdict::UPDATED;
    }
}

} // namespace

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

Decision Decide(const Package& package, const Device& device, const Record* record) {
    PackageRevs revs = {};
    Decision decision = {
        Verdict::NOTHING_TO_DO, "", {PreCheck(package, device.identity, revs)}, {}, nullptr, 0};
    const auto end = [&](Verdict verdict) {
        decision.verdict = verdict;
        decision.why = decision.steps.back().reason;
        return decision;
    };
    if (!decision.steps.back().goesOn) {
        const bool isRefused = decision.steps.back().reason == NO_BASE;
        return end(isRefused ? Verdict::REFUSED : Verdict::NOTHING_TO_DO);
    }
    if (record != nullptr) {
        decision.steps.push_back(CheckRecord(*record, revs.fwFileRev));
        if (!decision.steps.back().goesOn) {
            return end(record->isReadable ? Verdict::ALREADY_ATTEMPTED
                                          : Verdict::RECORD_UNREADABLE);
        }
    }
    const bool isUfs = device.identity.layout == &UFS;
    (void)TakePhoneMessages();
    decision.recorded = revs.fwFileRev;
    decision.steps.push_back(
        (isUfs ? UpdateUfs : UpdateEmmc)(package, device, *decision.PreCheck()));
    const Step& update = decision.steps.back();
    if (update.goesOn || update.reason == LARGE_UFS_BODY) {
        decision.sent = update.entry;
        decision.sentSize =
            std::min<size_t>(update.entry->bodySize, isUfs ? TRANSFER_SIZE : PACKAGE_SIZE_MAX);
    }
    JudgeUpdate(package, device.identity, decision);
    (void)TakePhoneMessages();
    return decision;
}

Texts FindingsOf(const Package& package, const Entry& entry) {
    const Layout& layout = *package.layout;
    Texts findings;
    const auto add = [&](bool isFound, const std::string& text) {
        findings.insert(findings.end(), isFound ? 1 : 0, text);
    };
    add(!entry.bodyFits, "the body reaches past the end of the package: phones ignore the entry");
    add(layout.extCsdRev.size > 0 && Get(entry.identity, layout.extCsdRev)[0] > EXT_CSD_REV_5_1,
        "no eMMC has this ext_csd_rev: 7 is eMMC 5.0, 8 is eMMC 5.1");
    add(Trimmed(Get(entry.identity, layout.name)).empty(), "the product name is empty");
    const std::string revision = Get(entry.identity, layout.revision);
    add(revision[0] == '\0', "the revision begins with a zero byte: once the record has any "
                             "attempt, the phone counts this revision as attempted");
    const uint8_t* body = package.bytes.get() + entry.body;
    for (const Layout* inner : {&EMMC, &UFS}) {
        add(entry.bodyFits && entry.bodySize >= inner->headerSize &&
                memcmp(body, inner->magic, MAGIC_SIZE) == 0,
            fmt::format("the body begins with an entry header ({}): is it a package?",
                        inner->title));
    }
    const auto base = BaseRevisionsOf(entry.identity);
    add(base && base->empty(), "no device can have any of its base revisions");
    if (!findings.empty()) {
        return findings;
    }
    // From any: try one that is older than texts are, and the one just before the entry's own.
    const bool isTaken = revision == std::string(revision.size(), '\1');
    Texts any = {std::string(revision.size(), isTaken ? '\2' : '\1')};
    if (&layout == &UFS && revision.back() != '\0') {
        any.push_back(revision);
        any.back().back() = static_cast<char>(revision.back() - 1);
    }
    for (const std::string& from : base.value_or(any)) {
        Device device = {entry.identity, true, 0};
        Set(device.identity, layout.revision, from);
        const std::string why = WhyNotSent(package, entry, device);
        add(!why.empty() && findings.empty(), (base ? "from " + Quoted(from) + ": " : "") + why);
    }
    return findings;
}

bool NeedsGkiMode(const Entry& entry) {
    return entry.identity.layout == &EMMC && !FitsOneDownload(entry.bodySize);
}

Texts NotesOf(const Entry& entry) {
    Texts notes;
    const Layout& layout = *entry.identity.layout;
    const std::string revision = Get(entry.identity, layout.revision),
                      text = revision.substr(0, revision.find('\0'));
    if (NeedsGkiMode(entry)) {
        notes.emplace_back(LARGE_EMMC_BODY);
    }
    if (&layout == &UFS && entry.bodySize > LINUX_UFS_TRANSFER_SIZE) {
        notes.emplace_back(
            "the body is larger than the 1 MiB that Linux's UFS driver takes in one "
            "request since 2022: /sys/block/sdc/queue/max_hw_sectors_kb on the phone "
            "tells what it takes");
    }
    if (revision.find_last_not_of('\0') + 1 > text.size() && !text.empty()) {
        notes.push_back(
            "the revision has bytes behind a zero byte: the phone compares and records " +
            Quoted(text) + " only");
    }
    return notes;
}

Texts NotesForAnyPhone(const Entry& entry) {
    Texts notes = NotesOf(entry);
    if (entry.identity.layout == &UFS && !BaseRevisionsOf(entry.identity)) {
        notes.emplace_back(
            "it applies to any revision: a phone that runs a newer one uses up its attempt, as the "
            "update refuses an older revision; list base_revisions to exclude such phones");
    }
    return notes;
}
