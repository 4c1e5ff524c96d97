#include "kemdctl/performance/live_screen.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <utility>

#include "base/utf8.h"
#include "kemdctl/performance/live_tables.h"

namespace {

constexpr const char* kBold = "1";
constexpr const char* kDim = "2";

// Colors of how near to a limit something is.
const char* AlertCode(double part) {
    return part >= 0.9 ? "31" : part >= 0.7 ? "33" : "32";
}

// A line that ends at the edge of the screen.
class Line {
  public:
    explicit Line(const LiveSize& size) : m_most(size.columns), m_hasColor(size.hasColor) {}

    // What is cut ends where a character does.
    Line& Put(std::string_view text, const char* code = "") {
        const bool isStyled = m_hasColor && *code != '\0' && m_width < m_most;
        if (isStyled) m_text.append("\x1b[").append(code).append("m");
        while (!text.empty() && m_width < m_most) {
            const size_t length = std::max<size_t>(Utf8Length(text), 1);
            // One that takes two columns would shift the others.
            const bool isWide = length > 2 && text.substr(0, 2) != "\xe2\x80";
            m_text += isWide ? std::string_view("?") : text.substr(0, length);
            text.remove_prefix(std::min(length, text.size()));
            ++m_width;
        }
        if (isStyled) m_text += "\x1b[0m";
        return *this;
    }
    // All of it or nothing.
    Line& PutWhole(std::string_view text, const char* code = "") {
        return m_width + Width(text) <= m_most ? Put(text, code) : *this;
    }
    Line& PadTo(size_t column) {
        return Put(std::string(column > m_width ? column - m_width : 0, ' '));
    }
    // Right-aligned in `width` columns.
    Line& PutRight(std::string_view text, size_t width, const char* code = "") {
        const size_t length = Width(text);
        Put(std::string(width > length ? width - length : 0, ' '));
        return Put(text, code);
    }
    // "[||||    ]"
    Line& PutBar(double part, size_t width) {
        const double share = std::isfinite(part) ? std::clamp(part, 0.0, 1.0) : 0;
        const auto full = static_cast<size_t>(std::lround(share * static_cast<double>(width)));
        return Put("[")
            .Put(std::string(full, '|'), AlertCode(share))
            .Put(std::string(width - full, ' '))
            .Put("]");
    }
    [[nodiscard]] std::string Take() { return std::move(m_text); }
    static size_t Width(std::string_view text) {
        return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
            return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
        }));
    }

  private:
    size_t m_most;
    size_t m_width = 0;
    bool m_hasColor;
    std::string m_text;
};

using Lines = std::vector<std::string>;

bool HasFilter(std::string_view name, std::string_view filter) {
    const auto* const found =
        std::search(name.begin(), name.end(), filter.begin(), filter.end(), [](char a, char b) {
            return std::tolower(static_cast<unsigned char>(a)) ==
                   std::tolower(static_cast<unsigned char>(b));
        });
    return filter.empty() || found != name.end();
}

std::string WholeText(double number) {
    char text[32];
    std::snprintf(text, sizeof text, number < 1e5 ? "%.0f" : "%.3gM",
                  number < 1e5 ? number : number / 1e6);
    return std::isfinite(number) ? text : "-";
}

size_t BarWidth(const LiveSize& size) {
    return std::clamp<size_t>(size.columns / 5, 6, 40);
}

std::string TitleLine(const LiveFacts& facts, const LiveState& state, const LiveSize& size) {
    Line line(size);
    line.Put(facts.host, kBold).Put("  ").Put(facts.time).Put("  every " + facts.period);
    if (state.isPaused) line.Put("  paused", "33");
    if (!state.filter.empty() && !state.isTyping) line.Put("  filter: " + state.filter, "33");
    return line.Take();
}

std::string CpuLine(const LiveFacts& facts, const LiveSize& size) {
    constexpr std::string_view kBusy[] = {"cpu_user_seconds",    "cpu_nice_seconds",
                                          "cpu_system_seconds",  "cpu_irq_seconds",
                                          "cpu_softirq_seconds", "cpu_steal_seconds"};
    constexpr std::string_view kIdle[] = {"cpu_idle_seconds", "cpu_iowait_seconds"};
    const LiveValues& values = facts.values;
    const double busy = values.Sum(kBusy), all = busy + values.Sum(kIdle);
    const auto share = [&](const std::string& name) { return PercentText(values.Of(name) / all); };
    Line line(size);
    line.Put("CPU    ", kBold).PutBar(busy / all, BarWidth(size));
    line.PutRight(PercentText(busy / all), 7);
    for (const char* const part : {"user", "system", "iowait", "softirq", "steal"}) {
        line.PutWhole(std::string("  ") + part + " " +
                      share(std::string("cpu_") + part + "_seconds"));
    }
    return line.Take();
}

std::string MemoryLine(const LiveFacts& facts, const LiveSize& size) {
    const LiveValues& values = facts.values;
    const double total = values.Of("memory_total_bytes");
    const double available = values.Of("memory_available_bytes");
    Line line(size);
    line.Put("memory ", kBold).PutBar(1 - available / total, BarWidth(size));
    line.PutRight(PercentText(1 - available / total), 7);
    line.PutWhole("  available " + BytesText(available, false) + " of " + BytesText(total, false));
    for (const char* const part : {"dirty", "cached", "slab", "shared"}) {
        const double bytes = values.Of(std::string("memory_") + part + "_bytes");
        line.PutWhole(std::string("  ") + part + " " + BytesText(bytes, false));
    }
    return line.Take();
}

std::string SwapLine(const LiveFacts& facts, const LiveSize& size) {
    const LiveValues& values = facts.values;
    const double total = values.Of("swap_total_bytes"), free = values.Of("swap_free_bytes");
    Line line(size);
    line.Put("swap   ", kBold);
    if (total > 0) {
        line.PutBar(1 - free / total, BarWidth(size)).PutRight(PercentText(1 - free / total), 7);
        line.Put("  of " + BytesText(total, false));
    } else {
        line.Put("none");
    }
    line.PutWhole("  pages in " + WholeText(values.Of("swapped_in_pages")) + "/s out " +
                  WholeText(values.Of("swapped_out_pages")) + "/s");
    line.PutWhole("  major faults " + WholeText(values.Of("major_page_faults")) + "/s");
    return line.Take();
}

std::string PressureLine(const LiveFacts& facts, const LiveSize& size) {
    const LiveValues& values = facts.values;
    Line line(size);
    line.Put("stalls ", kBold);
    for (const char* const kind : {"cpu", "memory", "io"}) {
        const std::string name = std::string("pressure_") + kind;
        const double some = values.Of(name + "_some_seconds");
        const double full = values.Of(name + "_full_seconds");
        line.Put(std::string(kind) + " ").Put(PercentText(some), some >= 0.1 ? "33" : "");
        line.PutWhole(std::isfinite(full) ? ", all " + PercentText(full) + "  " : "  ");
    }
    return line.Take();
}

std::string LoadLine(const LiveFacts& facts, const LiveSize& size) {
    const LiveValues& values = facts.values;
    char load[64];
    std::snprintf(load, sizeof load, "%.2f %.2f %.2f", values.Of("load_1"), values.Of("load_5"),
                  values.Of("load_15"));
    Line line(size);
    line.Put("load   ", kBold).Put(load);
    line.PutWhole("  running " + WholeText(values.Of("processes_running")) + " blocked " +
                  WholeText(values.Of("processes_blocked")));
    line.PutWhole("  switches " + WholeText(values.Of("context_switches")) + "/s");
    line.PutWhole("  interrupts " + WholeText(values.Of("interrupts")) + "/s");
    line.PutWhole("  forks " + WholeText(values.Of("forks")) + "/s");
    return line.Take();
}

// A digit for each processor, tens of percent: hundreds fit.
Lines DigitGrid(const std::vector<LiveRow>& rows, const LiveSize& size) {
    constexpr size_t kLabel = 8, kGroup = 8;
    const size_t groups =
        std::max<size_t>((size.columns - std::min(size.columns, kLabel)) / (kGroup + 1), 1);
    const size_t across = groups * kGroup;
    Lines lines;
    for (size_t begin = 0; begin < rows.size(); begin += across) {
        Line line(size);
        line.PutRight(rows[begin].name, kLabel - 1, kDim).Put(" ");
        for (size_t i = begin; i < std::min(begin + across, rows.size()); ++i) {
            const double busy = rows[i].values[0];
            const char digit =
                std::isfinite(busy)
                    ? static_cast<char>('0' + std::min(9, static_cast<int>(busy * 10)))
                    : '-';
            line.Put(std::string(1, digit), AlertCode(std::isfinite(busy) ? busy : 0));
            if ((i - begin) % kGroup == kGroup - 1) line.Put(" ");
        }
        lines.push_back(line.Take());
    }
    return lines;
}

Lines BarGrid(const std::vector<LiveRow>& rows, const LiveSize& size) {
    constexpr size_t kCell = 20, kLabel = 4, kBar = 6;
    const size_t across = std::max<size_t>(size.columns / kCell, 1);
    const size_t down = (rows.size() + across - 1) / across;
    Lines lines;
    for (size_t y = 0; y < down; ++y) {
        Line line(size);
        for (size_t x = 0; x < across && x * down + y < rows.size(); ++x) {
            const LiveRow& row = rows[x * down + y];
            line.PadTo(x * kCell).PutRight(row.name, kLabel - 1).Put(" ");
            line.PutBar(row.values[0], kBar).PutRight(PercentText(row.values[0]), 6);
        }
        lines.push_back(line.Take());
    }
    return lines;
}

// A section before it gets its place.
struct Block {
    size_t number;
    std::string title;
    Lines lines;
    size_t granted = 0;  // of the lines
};

void Sort(LiveTable& table, size_t sort) {
    const auto byName = [](const LiveTableRow& a, const LiveTableRow& b) {
        return NaturalLess(a.name, b.name);
    };
    std::stable_sort(table.rows.begin(), table.rows.end(), byName);
    if (sort == 1) return;
    const auto key = [sort](const LiveTableRow& row) {
        const double value = sort == 0 ? row.activity : row.values[sort - 2];
        return std::isfinite(value) ? value : -1;
    };
    std::stable_sort(
        table.rows.begin(), table.rows.end(),
        [&key](const LiveTableRow& a, const LiveTableRow& b) { return key(a) > key(b); });
}

std::string HeadingLine(size_t number, const LiveTable& table, size_t shown, size_t nameWidth,
                        const LiveState& state, const LiveSize& size) {
    Line line(size);
    std::string title = "[" + std::to_string(number) + "] " + table.title;
    if (shown < table.rows.size()) {
        title += " " + std::to_string(shown) + "/" + std::to_string(table.rows.size());
    }
    line.Put(title, kBold).PadTo(nameWidth);
    for (size_t i = 0; i < table.columns.size(); ++i) {
        const bool isSorted = state.alone == number && state.sort == i + 2;
        line.PutRight(table.columns[i].heading, table.columns[i].width, isSorted ? "1;36" : "36");
    }
    return line.Take();
}

std::string RowLine(const LiveTable& table, const LiveTableRow& row, size_t nameWidth,
                    const LiveSize& size) {
    Line line(size);
    const bool isLong = Line::Width(row.name) + 1 > nameWidth;
    // Of a long name the end says more.
    size_t begin = isLong ? row.name.size() - std::min(row.name.size(), nameWidth - 2) : 0;
    while (begin < row.name.size() &&
           (static_cast<unsigned char>(row.name[begin]) & 0xc0) == 0x80) {
        ++begin;
    }
    line.Put(isLong ? "~" + row.name.substr(begin) : row.name).PadTo(nameWidth);
    for (size_t i = 0; i < row.cells.size(); ++i) {
        const bool isAlert = i == 0 && row.alert >= 0.7;
        line.PutRight(row.cells[i], table.columns[i].width, isAlert ? AlertCode(row.alert) : "");
    }
    return line.Take();
}

size_t NameWidth(const LiveTable& table, const LiveSize& size) {
    size_t cells = 0, longest = 16;
    for (const LiveColumn& column : table.columns) cells += column.width;
    for (const LiveTableRow& row : table.rows)
        longest = std::max(longest, Line::Width(row.name) + 1);
    const size_t room = size.columns > cells + 16 ? size.columns - cells : 16;
    return std::min(longest, room);
}

Block TableBlock(size_t number, const LiveFacts& facts, const LiveState& state,
                 const LiveSize& size) {
    LiveTable table = MakeTable(number, facts);
    std::erase_if(table.rows,
                  [&state](const LiveTableRow& row) { return !HasFilter(row.name, state.filter); });
    Sort(table, state.alone == number ? state.sort : std::min<size_t>(state.sort, 1));
    const size_t width = NameWidth(table, size);
    Block block = {number, HeadingLine(number, table, table.rows.size(), width, state, size), {}};
    for (const LiveTableRow& row : table.rows) {
        block.lines.push_back(RowLine(table, row, width, size));
    }
    return block;
}

// All processors on few lines.
Block ProcessorBlock(const LiveFacts& facts, const LiveState& state, const LiveSize& size) {
    constexpr size_t kMostBars = 16;
    std::vector<LiveRow> rows = ProcessorsBusy(facts.values);
    std::erase_if(
        rows, [&state](const LiveRow& row) { return !HasFilter("cpu" + row.name, state.filter); });
    Line title(size);
    title.Put("[1] CPUs", kBold);
    const bool areMany = rows.size() > kMostBars;
    if (areMany) title.Put("  each digit is one: tens of percent", kDim);
    return {1, title.Take(), areMany ? DigitGrid(rows, size) : BarGrid(rows, size)};
}

// Rounds in which each that wants one more line gets it.
void Grant(std::vector<Block>& blocks, size_t room) {
    while (!blocks.empty() && blocks.size() * 2 > room) blocks.pop_back();
    room -= blocks.size();
    for (bool hasGranted = true; hasGranted && room > 0;) {
        hasGranted = false;
        for (Block& block : blocks) {
            if (room == 0 || block.granted == block.lines.size()) continue;
            ++block.granted;
            --room;
            hasGranted = true;
        }
    }
}

// The heading says how many rows there is no place for.
Lines Join(const std::vector<Block>& blocks, const LiveSize& size) {
    Lines lines;
    for (const Block& block : blocks) {
        const size_t hidden = block.lines.size() - block.granted;
        lines.push_back(block.title);
        lines.insert(lines.end(), block.lines.begin(),
                     block.lines.begin() + static_cast<std::ptrdiff_t>(block.granted));
        if (hidden == 0 || block.granted == 0) continue;
        const std::string more = "... " + std::to_string(hidden + 1) + " more, key " +
                                 std::to_string(block.number) + " shows them";
        lines.back() = Line(size).Put(more, kDim).Take();
    }
    return lines;
}

std::vector<Block> MakeBlocks(const LiveFacts& facts, const LiveState& state,
                              const LiveSize& size) {
    std::vector<Block> blocks;
    for (size_t number = 1; number <= kLiveSections; ++number) {
        Block block = number == 1 ? ProcessorBlock(facts, state, size)
                                  : TableBlock(number, facts, state, size);
        if (!block.lines.empty()) blocks.push_back(std::move(block));
    }
    return blocks;
}

// The width of a text with its colors.
size_t ShownWidth(std::string_view text) {
    size_t width = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\x1b') {
            i = std::min(text.find('m', i), text.size());
        } else if ((static_cast<unsigned char>(text[i]) & 0xc0) != 0x80) {
            ++width;
        }
    }
    return width;
}

// Two columns of sections beside each other.
Lines SideBySide(std::vector<Block> blocks, const LiveSize& half, size_t room) {
    std::vector<Block> columns[2];
    size_t heights[2] = {0, 0};
    for (Block& block : blocks) {
        const size_t side = heights[0] <= heights[1] ? 0 : 1;
        heights[side] += block.lines.size() + 1;
        columns[side].push_back(std::move(block));
    }
    for (auto& column : columns) Grant(column, room);
    Lines left = Join(columns[0], half);
    const Lines right = Join(columns[1], half);
    left.resize(std::max(left.size(), right.size()));
    for (size_t i = 0; i < right.size(); ++i) {
        left[i].append(half.columns + 2 - ShownWidth(left[i]), ' ');
        left[i] += right[i];
    }
    return left;
}

Lines AllSections(const LiveFacts& facts, const LiveState& state, const LiveSize& size,
                  size_t room) {
    constexpr size_t kWide = 150;
    if (size.columns >= kWide) {
        const LiveSize half = {(size.columns - 2) / 2, size.rows, size.hasColor};
        return SideBySide(MakeBlocks(facts, state, half), half, room);
    }
    std::vector<Block> blocks = MakeBlocks(facts, state, size);
    Grant(blocks, room);
    return Join(blocks, size);
}

Lines OneSection(const LiveFacts& facts, const LiveState& state, const LiveSize& size,
                 size_t room) {
    Block block = TableBlock(state.alone, facts, state, size);
    const size_t shown = std::min(block.lines.size(), room - std::min<size_t>(room, 1));
    const size_t begin = std::min(state.scroll, block.lines.size() - shown);
    Lines lines = {block.title};
    if (block.lines.empty()) {
        lines.emplace_back(state.alone == 7 && !state.hasProcesses ? "press t to have them"
                                                                   : "there are none");
    }
    const auto first = block.lines.begin() + static_cast<std::ptrdiff_t>(begin);
    lines.insert(lines.end(), first, first + static_cast<std::ptrdiff_t>(shown));
    return lines;
}

constexpr const char* kHelp[] = {
    "q, Escape    ends            p, space  pauses",
    "1 to 7       shows one section alone, 0 or again: all",
    "s            sorts by name or activity, alone by each column",
    "/            filters rows by name, Escape ends that",
    "up, down     move in a section that is alone",
    "t            processes with the most CPU, memory and I/O",
    "h, ?         this help",
};

std::string BottomLine(const LiveState& state, const LiveSize& size) {
    if (state.isTyping) return Line(size).Put("filter: " + state.filter + "_", kBold).Take();
    const char* const sort = state.sort == 0 ? "busiest" : state.sort == 1 ? "name" : "column";
    return Line(size)
        .Put("q quit  p pause  / filter  s sort: " + std::string(sort) +
                 "  1-7 one section  t processes  h help",
             kDim)
        .Take();
}

}  // namespace

size_t SortCount(const LiveState& state) {
    return state.alone == 0 ? 2 : 2 + MakeTable(state.alone, {}).columns.size();
}

std::vector<std::string> LiveLines(const LiveFacts& facts, const LiveState& state,
                                   const LiveSize& size) {
    constexpr size_t kUnlimited = 100000;
    const size_t rows = size.rows > 0 ? size.rows : kUnlimited;
    Lines lines = {TitleLine(facts, state, size), CpuLine(facts, size),  MemoryLine(facts, size),
                   PressureLine(facts, size),     SwapLine(facts, size), LoadLine(facts, size)};
    // A small screen keeps the first ones, and half of it for what changes.
    lines.resize(std::min(lines.size(), std::max<size_t>(rows / 2, 1)));
    const size_t room = rows - lines.size() - std::min<size_t>(rows - lines.size(), 1);
    Lines rest;
    if (state.showsHelp) {
        for (const char* const text : kHelp) rest.push_back(Line(size).Put(text).Take());
    } else {
        rest = state.alone > 0 ? OneSection(facts, state, size, room)
                               : AllSections(facts, state, size, room);
    }
    rest.resize(std::min(rest.size(), room));
    std::move(rest.begin(), rest.end(), std::back_inserter(lines));
    if (size.rows == 0) return lines;
    lines.resize(rows - 1);
    lines.push_back(BottomLine(state, size));
    return lines;
}
