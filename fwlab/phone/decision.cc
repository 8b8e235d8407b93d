// Asks the phone's own routines, in the order of a run, what they make of a package, and derives
// from their answers what becomes of the phone.
#include "fwlab/phone/decision.h"

#include "fwlab/base/json.h"
#include "fwlab/base/stop.h"
#include "fwlab/phone/phone_messages.h"

#include "emmc/emmc_command.h"
#include "emmc/emmc_device.h"
#include "emmc/emmc_update.h"
#include "run/package_check.h"
#include "run/result_record.h"
#include "run/step.h"
#include "simphone/text.h"
#include "ufs/ufs_identity.h"
#include "ufs/ufs_selection.h"
#include "ufs/ufs_write_buffer.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <strings.h>

namespace {

constexpr char LARGE_EMMC_BODY[] = "the body is larger than 1 MiB: only GKI mode takes it";
constexpr char EMPTY_BODY[] = "its body is empty: the device gets no firmware";

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
    NameOf(identity).copy(info.pnm, PNM_SIZE);
    RevisionOf(identity).copy(info.localFwRev, REV_SIZE);
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
        return NameOf(device);
    }
    const UfsFwHeader header = UfsDevice(device);
    return {reinterpret_cast<const char*>(header.ufsPnm), sizeof(header.ufsPnm)};
}

// Without the bytes at the end that the update takes for blanks.
std::string Trimmed(std::string name) {
    name.resize(name.find_last_not_of(std::string(" \r\n\0", 4)) + 1);
    return name;
}

// Why the pre-check finds no entry.
Reason WhyNoEntry(const Package& package, const Identity& device) {
    const Field& field = device.layout->name;
    const std::string name = Get(device, field);
    for (const Entry& entry : package.entries) {
        const std::string other = Get(entry.identity, field);
        if (other == name) {
            return {Verdict::NOTHING_TO_DO,
                    "no usable entry has the product name {device}: {entry} has no body inside "
                    "the package",
                    &entry};
        }
        if (strcasecmp(Trimmed(other).c_str(), Trimmed(name).c_str()) == 0) {
            return {Verdict::NOTHING_TO_DO,
                    "no entry has the product name {device}: {entry} has {value}, which differs "
                    "only in blanks, zero bytes or case",
                    &entry};
        }
    }
    const Layout& other = device.layout == &UFS ? EMMC : UFS;
    const bool isOther =
        package.entries.empty() &&
        !LookInto(package.path, package.bytes, package.size, other).entries.empty();
    return {Verdict::NOTHING_TO_DO,
            package.bytes == nullptr ? "there is no {layout} package"
            : package.size == 0      ? "the package is empty"
            : isOther ? "no entry has the product name {device}: the package holds {second} entries"
                      : "no entry has the product name {device}"};
}

Step PreCheck(const Package& package, const Identity& device, PackageRevs& revs) {
    (void)TakePhoneMessages();
    const DeviceInfo info = InfoOf(device);
    const int parsed = package.size == 0 ? ENTRY_NOT_FOUND
                                         : GetRevs(info, package.bytes.get(), package.size, revs);
    const int verdict = JudgeRevs(info, parsed, revs);
    const Entry* entry = parsed == 0 ? EntryAt(package, revs.entry) : nullptr;
    const Texts messages = TakePhoneMessages();
    const Reason reason =
        entry == nullptr ? WhyNoEntry(package, device)
        : verdict == STEP_DONE
            ? Reason{Verdict::UPDATED, "its revision is not the running one, and it may be applied "
                                       "to the running one"}
        : IsSameRev(info.localFwRev, revs.fwFileRev)
            ? Reason{Verdict::NOTHING_TO_DO, "the phone finds the entry's revision equal to the "
                                             "running one (it compares only the beginning)"}
            : Reason{Verdict::REFUSED, "the running revision is not among its base revisions"};
    return {"pre-check", entry, reason, messages};
}

Step CheckRecord(const Record& record, const std::string& target) {
    const Verdict verdict = !record.isReadable           ? Verdict::RECORD_UNREADABLE
                            : IsOnRecord(record, target) ? Verdict::ALREADY_ATTEMPTED
                                                         : Verdict::UPDATED;
    const char* sentence = record.isReadable
                               ? "the last attempt was from {from} to {to}"
                               : "the phone cannot parse the record, so the run stops";
    return {"record", nullptr, {verdict, sentence}, record.messages};
}

// What the update selects.
struct Selection {
    const Entry* entry = nullptr; // null: none
    const char* why = nullptr;    // the device does not get all of it; null: it does
    size_t sent = 0;              // bytes of the body that it gets
};

Selection SelectEmmc(const Package& package, const Device& device) {
    const auto header = HeaderOf<EmmcFwHeader>(device.identity);
    const uint8_t *bytes = package.bytes.get(), *body = nullptr;
    uint32_t size = 0;
    const int status =
        EmmcFwhdrCheck(header, bytes, static_cast<int32_t>(package.size), body, size);
    if (body == nullptr) {
        return {};
    }
    const Entry* entry = EntryAt(package, static_cast<size_t>(body - bytes) - sizeof(header));
    const char* why = status != 0                             ? "its revision is running already"
                      : !IsEmmc50OrLater(header.emmcRev)      ? "the device is older than eMMC 5.0"
                      : !device.gki && !FitsOneDownload(size) ? LARGE_EMMC_BODY
                      : size == 0                             ? EMPTY_BODY
                                                              : nullptr;
    return {entry, why, why == nullptr ? size : 0};
}

Selection SelectUfs(const Package& package, const Device& device) {
    const UfsFwHeader header = UfsDevice(device.identity);
    UfsSelection selection = {};
    if (SelectUfsFw(header, package.bytes.get(), static_cast<int32_t>(package.size), selection) !=
        0) {
        return {};
    }
    const uint32_t size = selection.ufsCurrentFwSize;
    const Entry* entry = EntryAt(package, selection.ufsCurrentFwOffset - sizeof(header));
    const bool isTooLarge = device.maxHwSectorsKb > 0 && size > device.maxHwSectorsKb * 1024;
    const char* why =
        selection.verdict != 0 ? "its revision is not newer than the running one"
        : isTooLarge
            ? "its body is larger than the {limit} KiB that the phone's host takes in one request"
        : size > TRANSFER_SIZE
            ? "the body is larger than 8 MiB: the device gets only its first 8 MiB"
        : size == 0 ? EMPTY_BODY
                    : nullptr;
    const bool isSent = selection.verdict == 0 && !isTooLarge;
    return {entry, why, isSent ? std::min<size_t>(size, TRANSFER_SIZE) : 0};
}

// Why the update selects no entry, though this one has the product name.
Reason WhyNotSelected(const Entry& entry, const Identity& device) {
    for (const Field* field : {&device.layout->manufacturer, &device.layout->extCsdRev}) {
        if (Get(device, *field) != Get(entry.identity, *field)) {
            return {Verdict::USED_UP, "{entry} has {field} {value}, the device {device}", &entry,
                    nullptr, field};
        }
    }
    return {Verdict::USED_UP,
            "the update uses the product name {used} for the device, and no entry has it"};
}

// Adds the step, and what the device gets.
void Update(Decision& decision) {
    (void)TakePhoneMessages();
    const Identity& device = decision.device.identity;
    const auto select = device.layout == &UFS ? SelectUfs : SelectEmmc;
    const auto [entry, why, sent] = select(*decision.package, decision.device);
    if (sent > 0) {
        decision.sent = entry;
        decision.sentBody = entry->image.substr(0, sent);
    }
    const Reason reason = entry == nullptr ? WhyNotSelected(*decision.PreCheck(), device)
                          : why != nullptr ? Reason{Verdict::USED_UP, why}
                                           : Reason{Verdict::UPDATED, ""};
    decision.steps.push_back({"update", entry, reason, TakePhoneMessages()});
}

// Whether the entry describes exactly this device, under the product name that the update uses, and
// may be applied from the running revision. The update itself does not check that.
bool IsFor(const Entry& entry, const Identity& device) {
    const Layout& layout = *device.layout;
    const auto same = [&](const Field& field) {
        return Get(entry.identity, field) == Get(device, field);
    };
    const std::string name = UpdateName(device);
    const bool isNamed = name == NameOf(device) ? same(layout.name)
                                                : Trimmed(NameOf(entry.identity)) == Trimmed(name);
    const std::string baseRevs = Get(entry.identity, layout.baseRevs);
    return isNamed && same(layout.manufacturer) && same(layout.extCsdRev) && entry.outer == 0 &&
           CheckBaseRev(InfoOf(device), reinterpret_cast<const uint8_t*>(baseRevs.data()));
}

// Why a device that entry describes would not be sent exactly this entry; empty if it would.
std::string WhyNotSent(const Package& package, const Entry& entry, const Device& device) {
    const std::string own = RevisionOf(entry.identity);
    const Decision decision = Decide(package, device);
    const Entry *seen = decision.PreCheck(), *sent = decision.sent;
    if (seen == nullptr) {
        return WhyOf(decision);
    }
    if (RevisionOf(seen->identity) != own) {
        return Title(*seen) + " comes first and has the same product name, so the phone looks at "
                              "its revision only: put them into separate packages";
    }
    if (!decision.steps.front().GoesOn()) {
        return fmt::format("the pre-check selects {}: {}", Title(*seen), WhyOf(decision));
    }
    const std::string used = UpdateName(device.identity);
    const bool isRenamed = used != NameOf(device.identity);
    if (sent == nullptr || sent == &entry || (isRenamed && RevisionOf(sent->identity) == own)) {
        return decision.verdict == Verdict::UPDATED
                   ? ""
                   : "a phone would use up its attempt: " + WhyOf(decision);
    }
    if (NameOf(sent->identity) == NameOf(entry.identity)) {
        return Title(*sent) + " comes first and is for the same devices";
    }
    return fmt::format("the update selects {}: {}", Title(*sent),
                       isRenamed
                           ? "it uses the product name " + Quoted(Trimmed(used)) + " for the device"
                           : "a blank in one product name matches any character in the "
                             "other, so put the two entries into separate packages");
}

// What the attempt comes to, when all steps are taken.
Reason ReasonOfAttempt(const Decision& decision) {
    const Identity& device = decision.device.identity;
    const Entry *seen = decision.PreCheck(), *sent = decision.sent;
    const Entry* outer = OuterEntry(*decision.package, *seen);
    const bool isRight =
        sent == nullptr || (sent == seen && outer == nullptr) ||
        (IsFor(*sent, device) && RevisionOf(sent->identity) == RevisionOf(seen->identity));
    if (!isRight) {
        return {Verdict::WRONG_IMAGE,
                sent == seen ? "{entry} lies inside the image of {other}"
                             : "the pre-check selects {entry}, the update selects {other}",
                seen, sent == seen ? outer : sent};
    }
    const DeviceInfo info = InfoOf(device);
    const bool isReadable =
        ParseRecord(RecordText(info.pnm, info.localFwRev, *decision.recorded)).isReadable;
    return isReadable ? decision.steps.back().reason
                      : Reason{Verdict::RECORD_UNREADABLE,
                               "the running or the new revision has a line feed: the phone cannot "
                               "parse the record of the attempt"};
}

Json NumberOf(const Entry* entry) {
    return entry == nullptr ? Json() : Json(entry->number);
}

} // namespace

std::string Sentence(const Reason& reason, const Decision& decision) {
    const Identity& device = decision.device.identity;
    const Layout& layout = *device.layout;
    const Field& field = reason.field == nullptr ? layout.name : *reason.field;
    const Record record = decision.record.value_or(Record());
    const auto title = [](const Entry* entry) { return entry == nullptr ? "" : Title(*entry); };
    return fmt::format(
        fmt::runtime(reason.sentence), fmt::arg("entry", title(reason.entry)),
        fmt::arg("other", title(reason.other)), fmt::arg("field", field.key),
        fmt::arg("device", Shown(ValueOf(device, field))),
        fmt::arg("value",
                 reason.entry == nullptr ? "" : Shown(ValueOf(reason.entry->identity, field))),
        fmt::arg("used", Quoted(Trimmed(UpdateName(device)))), fmt::arg("layout", layout.title),
        fmt::arg("second", (&layout == &UFS ? EMMC : UFS).title),
        fmt::arg("limit", decision.device.maxHwSectorsKb), fmt::arg("from", Quoted(record.base)),
        fmt::arg("to", Quoted(record.target)));
}

std::string WhyOf(const Decision& decision) {
    return Sentence(decision.reason, decision);
}

Decision Decide(const Package& package, const Device& device, const std::optional<Record>& record) {
    PackageRevs revs = {};
    Decision decision = {&package, device, record, {}, {}, {}, {}, nullptr, {}};
    std::vector<Step>& steps = decision.steps;
    steps.push_back(PreCheck(package, device.identity, revs));
    if (steps.back().GoesOn() && record) {
        steps.push_back(CheckRecord(*record, revs.fwFileRev));
    }
    if (steps.back().GoesOn()) {
        decision.recorded = revs.fwFileRev;
        Update(decision);
    }
    decision.reason = decision.recorded ? ReasonOfAttempt(decision) : steps.back().reason;
    decision.verdict = decision.reason.verdict;
    (void)TakePhoneMessages();
    return decision;
}

Decision Decide(const Package& package, const Device& device, const StateDirectory& state) {
    const std::optional<std::string> content = RecordIn(state);
    return Decide(package, device, content ? std::optional(ParseRecord(*content)) : std::nullopt);
}

std::optional<std::string> RecordIn(const StateDirectory& state) {
    const auto record = state.files.find(std::filesystem::path(RESULT_FILE).filename());
    return record == state.files.end() ? std::nullopt : std::optional(record->second);
}

bool IsSent(const Decision& decision, const std::string& taken) {
    const size_t size = decision.sentBody.size();
    const bool isEmmc = decision.device.identity.layout == &EMMC; // a request carries whole blocks
    const size_t padded = size_t{DownloadBlocks(static_cast<uint32_t>(size))} * MMC_BLOCK_SIZE;
    return decision.sent != nullptr && !taken.empty() &&
           (taken.size() == size || (isEmmc && taken.size() == padded)) &&
           decision.sentBody == std::string_view(taken).substr(0, size);
}

Verdict Judge(const Decision& decision, const std::string& taken, const StateDirectory& before,
              const StateDirectory& after) {
    const std::optional<std::string> record = RecordIn(after);
    const bool isSent = IsSent(decision, taken);
    if (!taken.empty() && (!isSent || decision.verdict == Verdict::WRONG_IMAGE)) {
        return Verdict::WRONG_IMAGE;
    }
    if (taken.empty() && (!record || record == RecordIn(before))) {
        return decision.recorded ? Verdict::STOPPED : decision.verdict;
    }
    if (record && !ParseRecord(*record).isReadable) {
        return Verdict::RECORD_UNREADABLE;
    }
    return isSent && decision.verdict != Verdict::USED_UP ? Verdict::UPDATED : Verdict::USED_UP;
}

Json ReportOf(const Decision& decision) {
    Json steps = Json::array();
    for (const Step& step : decision.steps) {
        steps.push_back({{"step", step.name},
                         {"goes_on", step.GoesOn()},
                         {"entry", NumberOf(step.entry)},
                         {"reason", Sentence(step.reason, decision)},
                         {"messages", step.messages}});
    }
    return {{"answer", WordOf(decision.verdict)},
            {"why", WhyOf(decision)},
            {"pre_check", NumberOf(decision.PreCheck())},
            {"recorded", decision.recorded ? Json(Escaped(*decision.recorded)) : Json()},
            {"sent", NumberOf(decision.sent)},
            {"sent_bytes", decision.sentBody.size()},
            {"steps", steps}};
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
    add(Trimmed(NameOf(entry.identity)).empty(), "the product name is empty");
    const std::string revision = RevisionOf(entry.identity);
    add(revision[0] == '\0', "the revision begins with a zero byte: once the record has any "
                             "attempt, the phone counts this revision as attempted");
    for (const Layout* inner : {&EMMC, &UFS}) {
        add(entry.image.size() >= inner->headerSize &&
                entry.image.substr(0, MAGIC_SIZE) == inner->magic,
            fmt::format("the body begins with an entry header ({}): is it a package?",
                        inner->title));
    }
    const auto base = BaseRevisionsOf(entry.identity);
    add(base && base->empty(), "no device can have any of its base revisions");
    if (!findings.empty()) {
        return findings;
    }
    Texts any = {OldestRevision(layout)};
    if (&layout == &UFS && revision.back() != '\0') { // and the one just before the entry's own
        any.push_back(revision);
        any.back().back() = static_cast<char>(revision.back() - 1);
    }
    for (const std::string& from : base.value_or(any)) {
        Device device = {entry.identity, true, 0};
        Set(device.identity, layout.revision, from);
        const std::string why = base || from != revision ? WhyNotSent(package, entry, device) : "";
        add(!why.empty() && findings.empty(), (base ? "from " + Quoted(from) + ": " : "") + why);
    }
    return findings;
}

void RequireFlawless(const Package& package, bool withLargeEmmc) {
    size_t number = 0;
    for (const Entry* entry : OwnEntries(package)) {
        number++;
        Texts findings = FindingsOf(package, *entry);
        if (NeedsGkiMode(*entry) && !withLargeEmmc) {
            findings = NotesOf(*entry);
        }
        Require(findings.empty(), 1,
                fmt::format("{}: entry {} (in the package {}): {}", package.path, number,
                            Title(*entry), fmt::join(findings, "; ")));
    }
}

bool NeedsGkiMode(const Entry& entry) {
    return entry.identity.layout == &EMMC && !FitsOneDownload(entry.bodySize);
}

Texts NotesOf(const Entry& entry, bool forAnyPhone) {
    Texts notes;
    const Layout& layout = *entry.identity.layout;
    const std::string revision = RevisionOf(entry.identity),
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
    if (forAnyPhone && &layout == &UFS && !BaseRevisionsOf(entry.identity)) {
        notes.emplace_back(
            "it applies to any revision: a phone that runs a newer one uses up its attempt, as the "
            "update refuses an older revision; list base_revisions to exclude such phones");
    }
    return notes;
}
