// Aligns the columns of tables.
#include "fwlab/base/table.h"

#include <algorithm>
#include <fmt/format.h>

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
