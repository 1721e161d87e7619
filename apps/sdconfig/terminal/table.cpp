#include "apps/sdconfig/terminal/table.h"

#include <algorithm>

#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

constexpr std::size_t kWidest = 40;  // a longer field moves its own line alone
constexpr std::size_t kGap = 2;

// In characters: what begins with these bits goes on with one. A change of colour takes no room, and no field has
// another escape.
std::size_t widthOf(const std::string& text) {
    std::size_t width = 0;
    bool isColour = false;
    for (const char c : text) {
        isColour = isColour || c == '\x1b';
        if (!isColour && (c & 0xc0) != 0x80) ++width;
        if (c == 'm') isColour = false;
    }
    return width;
}

std::vector<std::size_t> widthsOf(const Fields& headings, const std::vector<Fields>& lines) {
    std::vector<std::size_t> widths;
    for (const std::string& heading : headings) widths.push_back(widthOf(heading));
    for (const Fields& line : lines)
        for (std::size_t i = 0; i < line.size(); ++i)
            if (const std::size_t width = widthOf(line[i]); width <= kWidest) widths[i] = std::max(widths[i], width);
    return widths;
}

std::string inColumns(const Fields& line, const std::vector<std::size_t>& widths) {
    std::string text;
    for (std::size_t i = 0; i < line.size(); ++i) {
        text += line[i];
        const std::size_t width = widthOf(line[i]);
        if (i + 1 < line.size()) text.append(std::max(widths[i], width) - width + kGap, ' ');
    }
    return text + "\n";
}

std::string withTabs(const Fields& line) {
    std::string text;
    for (std::size_t i = 0; i < line.size(); ++i) text += (i > 0 ? "\t" : "") + line[i];
    return text + "\n";
}

}  // namespace

std::string tableLine(const Fields& fields, const std::vector<std::size_t>& widths) {
    return isTerminal() ? inColumns(fields, widths) : withTabs(fields);
}

std::string table(const Fields& headings, const std::vector<Fields>& lines) {
    const bool columns = isTerminal() && !lines.empty();
    const std::vector<std::size_t> widths = widthsOf(headings, lines);
    std::string text = columns ? inColumns(headings, widths) : "";
    for (const Fields& line : lines) text += columns ? inColumns(line, widths) : withTabs(line);
    return text;
}

}  // namespace cli
