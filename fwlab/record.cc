// Reads and makes records of attempts by the phone's own routines.
#include "fwlab/record.h"

#include "run/result_record.h"
#include "simphone/files.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

Record ParseRecord(const std::string& content) {
    (void)TakePhoneMessages();
    std::string bytes = content;
    char line[RESULT_LINE_SIZE] = {};
    const std::unique_ptr<FILE, int (*)(FILE*)> file(
        bytes.empty() ? fopen("/dev/null", "r") : fmemopen(bytes.data(), bytes.size(), "r"),
        fclose);
    Require(file != nullptr, 2, "no memory to read a record");
    LastAttempt last = {};
    const bool isReadable = ReadLastLine(file.get(), line) == 0 && ParseAttempt(line, last) == 0;
    Record record = {isReadable, last.lastBaseRev, last.lastTargetRev, "", "", TakePhoneMessages()};
    // The line in front of the last one is the time; the phone does not read it.
    const std::string lastLine = line;
    const size_t begin = content.size() - std::min(content.size(), lastLine.size());
    const size_t timeEnd = begin == 0 ? 0 : begin - 1;
    const size_t timeBegin = content.rfind('\n', timeEnd == 0 ? 0 : timeEnd - 1);
    const size_t from = timeBegin == std::string::npos ? 0 : timeBegin + 1;
    record.time = content.substr(from, timeEnd - std::min(timeEnd, from));
    const std::string key = "product name:";
    const size_t name = lastLine.rfind(key, 0) == 0 ? key.size() : std::string::npos;
    if (isReadable && name != std::string::npos) {
        record.product = lastLine.substr(name, lastLine.rfind(", current fw version:") - name);
    }
    return record;
}

Record ReadRecord(const std::string& path) {
    std::error_code error;
    const bool isRegular = std::filesystem::is_regular_file(path, error);
    Require(isRegular, 2, path + ": " + (error ? error.message() : "is no regular file"));
    std::string content;
    const bool isRead = ReadWholeFile(path, content);
    Require(isRead, 2, path + ": " + strerror(errno));
    return ParseRecord(content);
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
