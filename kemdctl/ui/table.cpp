#include "kemdctl/ui/table.h"

#include <algorithm>

#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

void ShowTable(ReportWriter& report, const std::vector<TableRow>& rows) {
    std::vector<size_t> widths;
    for (const TableRow& row : rows) {
        widths.resize(row.size());
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], Width(row[i].text));
        }
    }
    const bool hasColor = TerminalHasColor();
    for (const TableRow& row : rows) {
        std::string line;
        size_t blanks = 0;
        for (size_t i = 0; i < row.size(); ++i) {
            const auto& [text, color] = row[i];
            if (!text.empty()) line.append(blanks, ' ');
            blanks = (text.empty() ? blanks : 0) + widths[i] - Width(text) + 2;
            const bool isPainted = hasColor && *color != '\0';
            line += isPainted ? std::string("\033[") + color + 'm' + text + "\033[0m" : text;
        }
        report.Line(line);
    }
}
