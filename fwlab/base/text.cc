// Makes texts fit for a shell. Called wherever fwlab prints a command.
#include "fwlab/base/text.h"

#include "simphone/text.h"

std::string ShellWord(const std::string& text) {
    const char* plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./,=+-";
    if (!text.empty() && text.find_first_not_of(plain) == std::string::npos) {
        return text;
    }
    if (Escaped(text) == text && text.find('\'') == std::string::npos) {
        return "'" + text + "'";
    }
    std::string word;
    for (const char c : Escaped(text)) {
        word.append(c == '\'' ? "\\" : "").append(1, c);
    }
    return "$'" + word + "'"; // bash: with \n, \\, \' and \xHH
}
