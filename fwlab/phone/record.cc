// Reads and makes records of attempts by the phone's own routines.
#include "fwlab/phone/record.h"

#include "fwlab/base/stop.h"
#include "fwlab/phone/phone_messages.h"
#include "run/result_record.h"
#include "simphone/files.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace {

constexpr char PRODUCT_KEY[] = "product name:";

// Removes the last attempt from content and puts its parts into time and product; both are empty if
// its lines are not as a run writes them. A product name may hold line feeds, so its line is found
// by the key at the begin of a line.
void TakeAttempt(std::string& content, std::string& time, std::string& product) {
    const size_t line = content.rfind(std::string("\n") + PRODUCT_KEY);
    const size_t key = line == std::string::npos ? 0 : line + 1;
    const size_t name = key + strlen(PRODUCT_KEY);
    const size_t nameEnd = content.find(std::string(", ") + BASE_REV_KEY, key);
    const bool isWhole = content.compare(key, strlen(PRODUCT_KEY), PRODUCT_KEY) == 0 &&
                         nameEnd != std::string::npos &&
                         content.find('\n', nameEnd) == content.size() - 1;
    product = isWhole ? content.substr(name, nameEnd - name) : "";
    content.resize(isWhole && key > 0 ? key - 1 : 0);
    const size_t lineEnd = content.rfind('\n');
    const size_t begin = lineEnd == std::string::npos ? 0 : lineEnd + 1;
    time = content.substr(begin);
    content.resize(begin);
}

} // namespace

Record ParseRecord(const std::string& content) {
    (void)TakePhoneMessages();
    std::string bytes = content;
    ResultLine line = {};
    const std::unique_ptr<FILE, int (*)(FILE*)> file(
        bytes.empty() ? fopen("/dev/null", "r") : fmemopen(bytes.data(), bytes.size(), "r"),
        fclose);
    if (file == nullptr) {
        throw Stop{2, "no memory to read a record"};
    }
    LastAttempt last = {};
    ReadLastLine(file.get(), line);
    const bool isReadable = ParseAttempt(line.data(), last) == 0;
    Record record = {isReadable, last.lastBaseRev, last.lastTargetRev, "", "", {}, !isReadable, ""};
    record.messages = TakePhoneMessages();
    if (isReadable) { // the phone reads neither product nor time
        TakeAttempt(bytes, record.time, record.product);
        record.isOnly = bytes.empty();
        std::string product;
        TakeAttempt(bytes, record.timeBefore, product);
    }
    return record;
}

Record ReadRecord(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        throw Stop{2, path + ": " + (error ? error.message() : "is no regular file")};
    }
    std::string content;
    if (!ReadWholeFile(path, content)) {
        throw FailureAt(path, errno);
    }
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
