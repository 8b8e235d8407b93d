#include "fwlab/base/text.h"

#include "simphone/text.h"

#include <algorithm>
#include <fmt/format.h>

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

Texts InColumns(const std::vector<Texts>& rows, size_t numbers) {
    std::vector<size_t> widths;
    for (const Texts& row : rows) {
        widths.resize(row.size());
        for (size_t i = 0; i + 1 < row.size(); i++) { // the last column needs none
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    Texts lines;
    for (const Texts& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); i++) {
            line += i == numbers ? fmt::format("{:>{}}  ", row[i], widths[i])
                                 : fmt::format("{:{}}  ", row[i], widths[i]);
        }
        lines.push_back(line.substr(0, line.find_last_not_of(' ') + 1));
    }
    return lines;
}
