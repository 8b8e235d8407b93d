// Writes and reads the lines of the journal. A journal that ends with its run, as in a power cut,
// is whole up to the last call.
#include "simphone/journal.h"

#include "simphone/files.h"

#include <cstdlib>
#include <sstream>

namespace {

constexpr char FAULT[] = "fault";

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
        (void)Unescape(Rest(words), call.text); // as CallLine has escaped it
    }
    return call;
}

} // namespace

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
    if (!call.text.empty()) {
        line += " @" + std::to_string(call.consoleBytes) + " " + Escaped(call.text);
    }
    return line + "\n";
}

std::string FaultLine(const std::string& fault) {
    return std::string(FAULT) + " " + fault + "\n";
}

Journal ReadJournal(const std::string& phone) {
    std::string content;
    (void)ReadWholeFile(phone + JOURNAL_FILE, content); // a run that ended at once has none
    std::istringstream lines(content);
    Journal journal;
    for (std::string line; std::getline(lines, line) && !lines.eof();) { // whole ones
        if (line.rfind(FAULT, 0) == 0) {
            journal.faults.push_back(line.substr(sizeof(FAULT)));
        } else {
            journal.calls.push_back(ParseCall(line));
        }
    }
    return journal;
}
