// Writes and reads the lines of the journal. A journal that ends with its run, as in a power cut,
// is whole up to the last call.
#include "simphone/journal.h"

#include "simphone/files.h"
#include "simphone/text.h"

#include <cstdlib>
#include <sstream>

namespace {

constexpr char FAULT[] = "fault";
// In the order of their enumerators.
constexpr const char* KINDS[] = {"SEND_EXT_CSD", "FFU_DOWNLOAD",      "FFU_INSTALL", "OTHER_MMC",
                                 "GKI_WRITE",    "SCSI_WRITE_BUFFER", "OTHER_SCSI",  "SCSI_RESET"};
constexpr const char* TAKEN[] = {"NOTHING", "PART", "WHOLE"};

// The enumerator that the next word names.
template <typename Enumeration, size_t SIZE>
Enumeration Read(std::istringstream& words, const char* const (&names)[SIZE]) {
    std::string word;
    words >> word;
    return static_cast<Enumeration>(PlaceOf(word, names));
}

// The rest of a line behind the words that were read, without the blank in front.
std::string Rest(std::istringstream& words) {
    std::string rest;
    words.get();
    std::getline(words, rest);
    return rest;
}

CallEntry ParseCall(const std::string& line) {
    std::istringstream words(line);
    CallEntry call = {};
    std::string word;
    words >> call.number >> call.function >> word;
    (void)(word == Word("") || Unescape(word, call.path)); // as CallLine has written it
    word.clear();
    while (words >> word && word != "=") {
        call.arguments += (call.arguments.empty() ? "" : " ") + word;
    }
    words >> call.result;
    while (words >> word && word[0] != '@') {
        if (word == FAULT) {
            call.replaced = true;
        } else {
            call.error = word;
        }
    }
    if (words) {
        call.consoleBytes = strtoll(word.c_str() + 1, nullptr, 10);
        if (!call.IsMessage()) {
            const auto kind = Read<RequestKind>(words, KINDS);
            call.request = {kind, Read<Taken>(words, TAKEN), ""};
        }
        // as CallLine has escaped it
        (void)Unescape(Rest(words), call.request ? call.request->text : call.message);
    }
    return call;
}

} // namespace

const char* KindName(RequestKind kind) {
    return KINDS[static_cast<size_t>(kind)];
}

std::string Argument(const CallEntry& call, const std::string& name) {
    const std::string arguments = " " + call.arguments + " ", begin = " " + name + "=";
    const size_t at = arguments.find(begin), from = at + begin.size();
    return at == std::string::npos ? "" : arguments.substr(from, arguments.find(' ', from) - from);
}

unsigned long OpenFlags(const CallEntry& call) {
    return strtoul(Argument(call, "flags").c_str(), nullptr, 0);
}

std::string CallLine(const CallEntry& call) {
    std::string line = std::to_string(call.number) + " " + call.function + " " + Word(call.path);
    line += (call.arguments.empty() ? "" : " ") + call.arguments + " = " + call.result;
    line += (call.error.empty() ? "" : " ") + call.error;
    line += call.replaced ? std::string(" ") + FAULT : "";
    if (call.request || call.IsMessage()) {
        line += " @" + std::to_string(call.consoleBytes) + " ";
        line += call.request ? std::string(KindName(call.request->kind)) + " " +
                                   TAKEN[static_cast<size_t>(call.request->taken)] + " " +
                                   Escaped(call.request->text)
                             : Escaped(call.message);
    }
    return line + "\n";
}

std::string FaultLine(size_t place, const Fault& fault) {
    return std::string(FAULT) + " " + std::to_string(place) + " " + FaultText(fault) + "\n";
}

Journal ReadJournal(const std::string& phone) {
    const std::string content = WholeFile(phone + JOURNAL_FILE);
    std::istringstream lines(content);
    Journal journal = {{}, {}, content.empty() || content.back() == '\n'};
    for (std::string line; std::getline(lines, line) && !lines.eof();) { // whole ones
        if (line.rfind(FAULT, 0) == 0) {
            journal.faults.push_back(strtoul(line.c_str() + sizeof(FAULT), nullptr, 10));
        } else {
            journal.calls.push_back(ParseCall(line));
        }
    }
    return journal;
}
