// Tables (tbl): the options and format lines are read, never written; each
// data row becomes a paragraph of the table format with its cells a tab
// apart and a tab stop at the start of every column after the first. Column
// positions come from the widest cell of each column, alignment from the
// format letters, the cell's font from the format's font letters.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "interp/interp.h"
#include "preproc/preproc.h"
#include "preproc/preprocstate.h"
#include "roff/roff.h"

namespace {

// Basic units to the inch, as the roff layer counts them.
constexpr double kUnitsPerInch = 300;

// One column of a format row: its key letter (l, r, c, n, a, s, ^, _, -, =,
// in lower case) and the font its letters ask for ("" for none).
struct Column {
    char key = 'l';
    std::string font;
};
using FormatRow = std::vector<Column>;

// One cell of a data row: its text as troff input (the lines of a text
// block a newline apart) and whether it is a text block.
struct Cell {
    std::string text;
    bool isBlock = false;
};

// A data row with the format row it takes, or a line the table passes on
// to troff (a request between rows).
struct Row {
    std::vector<Cell> cells;
    size_t formatIndex = 0;
    const FormatRow* format = nullptr;  // table.formats[formatIndex], once all are read
    std::string passedOn;  // the request lines before the row
};

struct Table {
    char tab = '\t';
    std::vector<FormatRow> formats;  // of all sections
    std::vector<Row> rows;
};

bool isKey(char c) {
    switch (c) {
        case 'l': case 'r': case 'c': case 'n': case 'a': case 's': case '^': case '_': case '-':
        case '=': case 'L': case 'R': case 'C': case 'N': case 'A': case 'S':
            return true;
        default:
            return false;
    }
}

bool isRuleKey(char key) { return key == '_' || key == '-' || key == '='; }

bool isRuleRow(const FormatRow& row) {
    return std::all_of(row.begin(), row.end(), [](const Column& column) { return isRuleKey(column.key); });
}

// Reads a font name after the f modifier: "(xx", "[name]", or one or two
// characters up to a blank or the next key.
std::string readFontName(std::string_view line, size_t& i) {
    while (i < line.size() && line[i] == ' ') i++;
    std::string name;
    if (i < line.size() && line[i] == '(') {
        name = std::string(line.substr(i + 1, 2));
        i = std::min(line.size(), i + 3);
    } else if (i < line.size() && line[i] == '[') {
        size_t close = line.find(']', i);
        if (close == std::string_view::npos) close = line.size();
        name = std::string(line.substr(i + 1, close - i - 1));
        i = std::min(line.size(), close + 1);
    } else {
        while (i < line.size() && name.size() < 2 && line[i] != ' ' && line[i] != '\t' &&
               line[i] != '.' && line[i] != ',' && line[i] != '|') {
            name += line[i++];
            // One upper-case letter followed by another key is a name of one.
            if (i < line.size() && isKey(line[i]) && line[i] != 'B' && line[i] != 'I') break;
        }
    }
    return name;
}

// Reads the format rows of one line into `rows`; true when the line ends the
// format section (its last character is a period).
bool readFormatLine(std::string_view line, std::vector<FormatRow>& rows) {
    std::string_view text = trimmed(line);
    bool isLast = !text.empty() && text.back() == '.';
    if (isLast) text.remove_suffix(1);
    FormatRow row;
    for (size_t i = 0; i < text.size();) {
        char c = text[i];
        if (c == ',') {
            if (!row.empty()) rows.push_back(std::move(row));
            row.clear();
            i++;
            continue;
        }
        if (isKey(c)) {
            if (row.size() < kMaxTableColumns) row.push_back(Column{static_cast<char>(c | 0x20), {}});
            if (c == '^' || c == '_' || c == '-' || c == '=') row.back().key = c;
            i++;
            continue;
        }
        i++;
        if (row.empty()) continue;  // a modifier without a key
        switch (c) {
            case 'b': case 'B': row.back().font = "B"; break;
            case 'i': case 'I': row.back().font = "I"; break;
            case 'f': case 'F': row.back().font = readFontName(text, i); break;
            case 'p': case 'P': case 'v': case 'V':
                if (i < text.size() && (text[i] == '+' || text[i] == '-')) i++;
                while (i < text.size() && text[i] >= '0' && text[i] <= '9') i++;
                break;
            case 'w': case 'W':
                if (i < text.size() && text[i] == '(') {
                    size_t close = text.find(')', i);
                    i = close == std::string_view::npos ? text.size() : close + 1;
                } else {
                    while (i < text.size() && ((text[i] >= '0' && text[i] <= '9') || text[i] == '.')) i++;
                }
                break;
            default:  // blanks, bars, spacing digits and the other modifiers
                break;
        }
    }
    if (!row.empty()) rows.push_back(std::move(row));
    return isLast;
}

// The tab character of the options line: "tab(x)", in either case, blanks
// allowed before the parenthesis.
char optionsTab(std::string_view options) {
    for (size_t i = 0; i + 3 < options.size(); i++) {
        std::string_view word = options.substr(i, 3);
        if (word != "tab" && word != "TAB") continue;
        size_t j = i + 3;
        while (j < options.size() && options[j] == ' ') j++;
        if (j + 2 < options.size() && options[j] == '(' && options[j + 1] != ')') return options[j + 1];
    }
    return '\t';
}

// A cell that carries no text: a rule, or the top of a vertical span.
bool isEmptyCell(std::string_view cell) {
    return cell.empty() || cell == "_" || cell == "=" || cell == "\\_" || cell == "\\=" ||
           cell == "\\^" || (cell.size() == 3 && cell.substr(0, 2) == "\\R");
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// The key of column `k` in a row's format; a column the format does not
// name is left-aligned.
char keyOf(const Row& row, size_t k) {
    return row.format && k < row.format->size() ? (*row.format)[k].key : 'l';
}

// Reads the region's lines into a table.
Table readTable(const std::vector<std::string>& lines) {
    Table table;
    size_t i = 0;
    std::string_view first = i < lines.size() ? trimmed(lines[i]) : std::string_view();
    if (!first.empty() && first.back() == ';') {
        table.tab = optionsTab(first);
        i++;
    }
    auto readFormats = [&]() -> size_t {
        size_t start = table.formats.size();
        while (i < lines.size() && !readFormatLine(lines[i++], table.formats)) {
        }
        if (table.formats.size() == start) table.formats.push_back(FormatRow{Column{}});
        return start;
    };
    size_t sectionStart = readFormats();
    size_t nextFormat = sectionStart;
    std::string passedOn;
    const char tab = table.tab;
    for (; i < lines.size(); i++) {
        const std::string& line = lines[i];
        std::string_view view = trimmed(line);
        // A line of data may begin with a period before a digit (.5).
        bool isRequest = isControlLine(line) && !(line.size() > 1 && line[1] >= '0' && line[1] <= '9');
        if (isRequest) {
            std::string_view name = trimmed(std::string_view(line).substr(1));
            name = name.substr(0, name.find_first_of(" \t"));
            if (name == "T&") {
                i++;
                sectionStart = readFormats();
                nextFormat = sectionStart;
                i--;
            } else if (name != "TH") {
                passedOn += line;
                passedOn += '\n';
            }
            continue;
        }
        if (view == "_" || view == "=") continue;  // a rule across the table
        Row row;
        row.passedOn = std::move(passedOn);
        passedOn.clear();
        // A format row of rules only is a rule of its own and takes no data
        // row; a section's last format row serves the rest of its rows.
        while (nextFormat + 1 < table.formats.size() && isRuleRow(table.formats[nextFormat])) nextFormat++;
        row.formatIndex = nextFormat;
        if (nextFormat + 1 < table.formats.size()) nextFormat++;
        while (row.formatIndex > sectionStart && isRuleRow(table.formats[row.formatIndex])) row.formatIndex--;
        row.cells.reserve(table.formats[row.formatIndex].size());
        std::string_view rest(line);
        size_t start = 0;
        for (;;) {
            size_t end = rest.find(tab, start);
            std::string_view cell = rest.substr(start, end == std::string_view::npos ? end : end - start);
            if (trimmed(cell) == "T{") {
                // The block's lines up to the one that starts with T}; the
                // cells after it go on in the same row.
                Cell block{std::string(), true};
                while (++i < lines.size() && !startsWith(lines[i], "T}")) {
                    if (!block.text.empty()) block.text += '\n';
                    block.text += lines[i];
                }
                row.cells.push_back(std::move(block));
                if (i >= lines.size()) break;
                rest = std::string_view(lines[i]).substr(2);
                start = !rest.empty() && rest[0] == tab ? 1 : 0;
                if (start == 0) break;
                continue;
            }
            if (row.cells.size() < kMaxTableColumns) {
                std::string_view text = trimmed(cell);
                row.cells.push_back(Cell{isEmptyCell(text) ? std::string() : std::string(text), false});
            }
            if (end == std::string_view::npos) break;
            start = end + 1;
        }
        table.rows.push_back(std::move(row));
    }
    if (!passedOn.empty()) {
        Row tail;
        tail.passedOn = std::move(passedOn);
        table.rows.push_back(std::move(tail));
    }
    // Data entries fill the columns that are not spans, in order; what is
    // left over has no column and is dropped, as tbl drops it.
    size_t columns = 1;
    for (const FormatRow& format : table.formats) columns = std::max(columns, format.size());
    for (Row& row : table.rows) {
        if (row.cells.empty()) continue;
        row.format = &table.formats[row.formatIndex];
        // Without a span in its format a row keeps its entries as they are.
        if (std::none_of(row.format->begin(), row.format->end(), [](const Column& c) { return c.key == 's'; })) {
            if (row.cells.size() > columns) row.cells.resize(columns);
            continue;
        }
        std::vector<Cell> entries = std::move(row.cells);
        row.cells.clear();
        row.cells.reserve(columns);
        size_t next = 0;
        for (size_t k = 0; k < columns && next < entries.size(); k++) {
            if (keyOf(row, k) == 's') {
                row.cells.emplace_back();
            } else {
                row.cells.push_back(std::move(entries[next++]));
            }
        }
    }
    return table;
}

// Whether the cell of column `k` carries text: spans, rules and vertical
// spans of the format take none (their data is dropped, as tbl does).
bool takesText(char key) { return key != 's' && key != '^' && !isRuleKey(key); }

// How many columns the cell at `k` covers: itself and the spans after it.
size_t spanOf(const Row& row, size_t k, size_t columns) {
    size_t n = 1;
    while (k + n < columns && keyOf(row, k + n) == 's') n++;
    return n;
}

// The point a numeric cell aligns on: after the last digit before a
// period, else after the last digit; the whole cell when it has none.
size_t alignPoint(std::string_view text) {
    size_t lastDigit = std::string_view::npos;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] >= '0' && text[i] <= '9') lastDigit = i;
    }
    if (lastDigit == std::string_view::npos) return text.size();
    size_t dot = text.rfind('.');
    if (dot != std::string_view::npos && ((dot > 0 && text[dot - 1] >= '0' && text[dot - 1] <= '9') ||
                                          (dot + 1 < text.size() && text[dot + 1] >= '0' && text[dot + 1] <= '9')))
        return dot;
    return lastDigit + 1;
}

// The width of a cell's text, in inches. A text block's control lines count
// by their arguments.
double widthOf(const Cell& cell) {
    if (!cell.isBlock) return static_cast<double>(RoffTextWidth(cell.text)) / kUnitsPerInch;
    double width = 0;
    std::string_view text(cell.text);
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        if (isControlLine(line)) {
            size_t blank = line.find(' ');
            line = blank == std::string_view::npos ? std::string_view() : line.substr(blank + 1);
        }
        width += static_cast<double>(RoffTextWidth(line)) / kUnitsPerInch;
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
    return width;
}

// Column widths and decimal points, in inches.
struct Layout {
    std::vector<double> width;
    std::vector<double> numberLeft;  // widest part before the alignment point of n cells
    std::vector<double> start;
};

Layout layOut(const Table& table, size_t columns) {
    Layout layout;
    layout.width.assign(columns, 0);
    layout.numberLeft.assign(columns, 0);
    std::vector<double> numberRight(columns, 0);
    // A text block is as wide as its text, at most its share of the line:
    // the line length over one more than the number of columns, as tbl has it.
    int64_t lineLength = 0;
    if (!roffRegisterValue(".l", lineLength) || lineLength <= 0) lineLength = 6 * 300 + 150;
    const double blockWidth = static_cast<double>(lineLength) / kUnitsPerInch / static_cast<double>(columns + 1);
    for (const Row& row : table.rows) {
        for (size_t k = 0; k < row.cells.size() && k < columns; k++) {
            char key = keyOf(row, k);
            if (!takesText(key) || spanOf(row, k, columns) > 1) continue;
            const Cell& cell = row.cells[k];
            if (key == 'n' && !cell.isBlock) {
                size_t point = alignPoint(cell.text);
                double left = static_cast<double>(RoffTextWidth(std::string_view(cell.text).substr(0, point))) / kUnitsPerInch;
                double right = static_cast<double>(RoffTextWidth(std::string_view(cell.text).substr(point))) / kUnitsPerInch;
                layout.numberLeft[k] = std::max(layout.numberLeft[k], left);
                numberRight[k] = std::max(numberRight[k], right);
                continue;
            }
            double width = widthOf(cell);
            if (cell.isBlock) width = std::min(width, blockWidth);
            layout.width[k] = std::max(layout.width[k], width);
        }
    }
    const double gap = 2 * 0.6 * tv.TVSize / 72.0;
    layout.start.assign(columns, 0);
    double x = 0;
    for (size_t k = 0; k < columns; k++) {
        layout.width[k] = std::max(layout.width[k], layout.numberLeft[k] + numberRight[k]);
        layout.start[k] = x;
        x += layout.width[k] + gap;
    }
    return layout;
}

TabStop stopAt(double x, uint32_t type) {
    TabStop stop;
    stop.mask = bit(TabStopBit::TSX) | bit(TabStopBit::TSType);
    stop.TSX = Dimension{static_cast<float>(x), kUnitInch};
    stop.TSType = type;
    return stop;
}

// The tab stops of one row: one at every cell after the first, placed and
// typed by the cell's key; the stops left over follow the table every half
// inch.
void rowStops(const Row& row, const Layout& layout, size_t columns, Block& block) {
    size_t n = 0;
    double end = columns > 0 ? layout.start[columns - 1] + layout.width[columns - 1] : 0;
    for (size_t k = 0; k < columns && n < kTabStopCount;) {
        size_t span = spanOf(row, k, columns);
        size_t last = k + span - 1;
        double width = layout.start[last] + layout.width[last] - layout.start[k];
        if (k > 0) {
            char key = keyOf(row, k);
            if (key == 'c') {
                block.tabs[n++] = stopAt(layout.start[k] + width / 2, kTSCenter);
            } else if (key == 'r') {
                block.tabs[n++] = stopAt(layout.start[k] + width, kTSRight);
            } else if (key == 'n' && span == 1) {
                block.tabs[n++] = stopAt(layout.start[k] + layout.numberLeft[k], kTSDecimal);
            } else {
                block.tabs[n++] = stopAt(layout.start[k], kTSLeft);
            }
        }
        k += span;
    }
    for (size_t i = 1; n < kTabStopCount; i++) block.tabs[n++] = stopAt(end + 0.5 * static_cast<double>(i), kTSLeft);
    block.hasTabs = true;
}

// Appends a text block's lines to a row's text: text lines go on in the
// same line, a blank apart (the row is filled); a request gets a line of
// its own.
void appendBlock(std::string_view block, std::string& out) {
    while (true) {
        size_t end = block.find('\n');
        std::string_view line = block.substr(0, end);
        if (isControlLine(line)) {
            if (!out.empty() && out.back() != '\n') out += '\n';
            out += line;
            out += '\n';
        } else if (!trimmed(line).empty()) {
            if (!out.empty() && out.back() != '\n' && out.back() != '\t') out += ' ';
            out += line;
        }
        if (end == std::string_view::npos) break;
        block.remove_prefix(end + 1);
    }
}

// The text of one row: the requests passed on before it, then its cells a
// tab apart, each in its font.
std::string rowText(const Row& row, size_t columns) {
    std::string text;
    const char escape = escapeChar();
    const bool hasEscapes = tv.TVEscapeChar != 0;
    bool isFontChanged = false;
    size_t lastCell = 0;  // one past the last cell with text: empty ones at the end give no tabs
    for (size_t k = 0; k < row.cells.size() && k < columns; k++) {
        if (takesText(keyOf(row, k)) && !row.cells[k].text.empty()) lastCell = k + 1;
    }
    bool isFirst = true;
    for (size_t k = 0; k < lastCell;) {
        size_t span = spanOf(row, k, columns);
        char key = keyOf(row, k);
        if (!isFirst) text += '\t';
        isFirst = false;
        const std::string& font = row.format && k < row.format->size() ? (*row.format)[k].font : std::string();
        if (takesText(key) && !row.cells[k].text.empty()) {
            if (hasEscapes && (!font.empty() || isFontChanged)) {
                text += escape;
                text += "f[";
                text += font.empty() ? "R" : font;
                text += ']';
            }
            const Cell& cell = row.cells[k];
            if (cell.isBlock) {
                appendBlock(cell.text, text);
            } else {
                // A cell at the start of a line that begins with the control
                // character is text all the same.
                bool isLineStart = text.empty() || text.back() == '\n';
                if (isLineStart && isControlLine(cell.text) && hasEscapes) {
                    text += escape;
                    text += '&';
                }
                text += cell.text;
            }
            isFontChanged = !font.empty() || cell.text.find(escape) != std::string::npos || cell.isBlock;
        }
        k += span;
    }
    if (hasEscapes && isFontChanged) {
        text += escape;
        text += "f[R]";
    }
    std::string out = row.passedOn;
    out += text;
    while (!out.empty() && out.back() == '\n') out.pop_back();
    return out;
}

}  // namespace

void PreprocTable(std::string_view) {
    std::vector<std::string> lines;
    readRegion({"TE"}, lines);
    Table table = readTable(lines);
    size_t columns = 1;
    for (const FormatRow& format : table.formats) columns = std::max(columns, format.size());
    Layout layout = layOut(table, columns);
    Region region;
    region.format = tableFormat();
    region.format.mask |= bit(PgfBit::tabStops);
    for (const Row& row : table.rows) {
        Block block;
        block.text = rowText(row, columns);
        if (block.text.empty()) continue;
        rowStops(row, layout, columns, block);
        region.blocks.push_back(std::move(block));
    }
    beginRegion(std::move(region));
}
