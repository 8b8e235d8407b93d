// Reads and makes records of attempts by the phone's own routines.
#include "fwlab/phone/record.h"

#include "fwlab/base/stop.h"
#include "fwlab/phone/phone_messages.h"
#include "run/result_record.h"
#include "simphone/files.h"

#include <cstring>
#include <filesystem>

namespace {

// What stands before the parts of an attempt.
const std::string PRODUCT = "product name:", LINE = "\n" + PRODUCT,
                  BASE = std::string(", ") + BASE_REV_KEY,
                  TARGET = std::string(", ") + TARGET_REV_KEY;

struct Attempt {
    std::string time, product, base; // empty if its lines are not as a run writes them
};

// Removes the last attempt from content. A product name may hold line feeds, so its line is found
// by the key at the begin of a line.
Attempt TakeAttempt(std::string& content) {
    const size_t line = content.rfind(LINE);
    const size_t key = line == std::string::npos ? 0 : line + 1;
    const size_t productEnd = content.find(BASE, key), baseEnd = content.find(TARGET, productEnd);
    Attempt attempt;
    if (content.compare(key, PRODUCT.size(), PRODUCT) != 0 || baseEnd == std::string::npos ||
        content.find('\n', baseEnd) != content.size() - 1) {
        content.clear();
        return attempt;
    }
    const auto between = [&](size_t begin, size_t end) {
        return content.substr(begin, end - begin);
    };
    attempt.product = between(key + PRODUCT.size(), productEnd);
    attempt.base = between(productEnd + BASE.size(), baseEnd);
    content.resize(key > 0 ? key - 1 : 0);
    const size_t time = content.rfind('\n') + 1; // 0 without a line feed
    attempt.time = content.substr(time);
    content.resize(time);
    return attempt;
}

} // namespace

Record ParseRecord(const std::string& content) {
    (void)TakePhoneMessages();
    std::string bytes = content;
    ResultLine line = {};
    const std::unique_ptr<FILE, int (*)(FILE*)> file(
        bytes.empty() ? fopen("/dev/null", "re") : fmemopen(bytes.data(), bytes.size(), "r"),
        fclose);
    Require(file != nullptr, 2, "no memory to read a record");
    LastAttempt last = {};
    ReadLastLine(file.get(), line);
    const bool isReadable = ParseAttempt(line.data(), last) == 0;
    Record record = {isReadable, last.lastBaseRev, last.lastTargetRev, "", "", TakePhoneMessages(),
                     {}};
    if (!isReadable) {
        return record;
    }
    // The phone reads neither product nor time, and of a base revision what is before a comma.
    const Attempt attempt = TakeAttempt(bytes);
    record.time = attempt.time;
    record.product = attempt.product;
    record.base = attempt.base.empty() ? record.base : attempt.base;
    while (!bytes.empty()) {
        record.earlierTimes.push_back(TakeAttempt(bytes).time);
    }
    return record;
}

Record ReadRecord(const std::string& path) {
    Require(std::filesystem::is_regular_file(path), 2, path + ": is no regular file");
    return ParseRecord(WholeFile(path));
}

bool IsOnRecord(const Record& record, const std::string& revision) {
    LastAttempt last = {};
    record.target.copy(last.lastTargetRev, REV_SIZE);
    return record.isReadable && IsAttempted(last, revision.c_str());
}

std::string RecordText(const std::string& product, const std::string& base,
                       const std::string& target) {
    char text[RESULT_LINE_SIZE] = {};
    const int length = FormatRecord(text, "Thu Jan  1 00:00:00 1970\n", product.c_str(),
                                    base.c_str(), target.c_str());
    return {text, length < 0 ? 0 : static_cast<size_t>(length)};
}
