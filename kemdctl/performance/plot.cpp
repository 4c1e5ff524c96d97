#include "kemdctl/performance/plot.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string_view>

#include "base/utf8.h"

namespace {

constexpr size_t kDotsAcross = 2, kDotsDown = 4;
constexpr const char* kAxis[] = {" |", " ┤"};  // ASCII, otherwise

size_t PlotWidth(const PlotFrame& frame) {
    constexpr size_t kLeast = 10, kAxisWidth = 2;
    return std::max(frame.width, frame.labelWidth + kAxisWidth + kLeast) - frame.labelWidth -
           kAxisWidth;
}

class Canvas {
  public:
    Canvas(size_t width, size_t height)
        : m_width(width), m_height(height), m_cells(width * height) {}

    [[nodiscard]] size_t Across() const { return m_width * kDotsAcross; }
    [[nodiscard]] size_t Down() const { return m_height * kDotsDown; }
    // From the left, and from below.
    void Set(size_t x, size_t y) {
        constexpr uint8_t kBits[kDotsDown][kDotsAcross] = {
            {0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};
        const size_t down = Down() - 1 - y;
        m_cells[down / kDotsDown * m_width + x / kDotsAcross] |=
            kBits[down % kDotsDown][x % kDotsAcross];
    }
    [[nodiscard]] std::string Line(size_t line, bool isBraille) const {
        std::string text;
        for (size_t i = 0; i < m_width; ++i) {
            const unsigned dots = m_cells[line * m_width + i];
            if (!isBraille) {
                const bool isUp = (dots & 0x1bU) != 0, isLow = (dots & 0xe4U) != 0;
                text += isUp && isLow ? ':' : isUp ? '\'' : isLow ? '.' : ' ';
            } else if (dots == 0) {
                text += ' ';
            } else {  // U+2800 and the dots
                text += '\xe2';
                text += static_cast<char>(0xa0U | dots >> 6U);
                text += static_cast<char>(0x80U | (dots & 0x3fU));
            }
        }
        return text;
    }

  private:
    size_t m_width;
    size_t m_height;
    std::vector<uint8_t> m_cells;
};

struct Range {
    double low = 0;
    double high = 1;
};

// From zero, unless that would leave the values in the upper half.
Range ChooseRange(const Column& column, std::span<const HistoryPoint> points) {
    double least = points[0].minimum, most = points[0].maximum;
    for (const HistoryPoint& point : points) {
        least = std::min(least, point.minimum);
        most = std::max(most, point.maximum);
    }
    if (least >= 0 && least <= most / 2) {
        const double high = column.format.RoundUp(most);
        return {0, high > 0 ? high : 1 / column.format.Factor()};
    }
    const double space = most > least ? (most - least) / 10 : std::fabs(most) / 10;
    return {least >= 0 ? std::max(least - space, 0.0) : least - space, most + space};
}

struct Band {
    bool isThere = false;
    double low = 0;
    double high = 0;
    void Add(double from, double to) {
        low = isThere ? std::min(low, from) : from;
        high = isThere ? std::max(high, to) : to;
        isThere = true;
    }
};

// The usual distance of points: what is farther apart is a gap.
int64_t UsualStep(std::span<const HistoryPoint> points) {
    std::vector<int64_t> steps;
    for (size_t i = 1; i < points.size(); ++i) steps.push_back(points[i].wall - points[i - 1].wall);
    if (steps.empty()) return 0;
    const auto middle = steps.begin() + static_cast<std::ptrdiff_t>(steps.size() / 2);
    std::nth_element(steps.begin(), middle, steps.end());
    return *middle;
}

size_t Place(int64_t wall, HistorySpan span, size_t count) {
    const double part =
        static_cast<double>(wall - span.from) / static_cast<double>(span.to - span.from);
    const double place = part * static_cast<double>(count);
    return static_cast<size_t>(std::clamp(place, 0.0, static_cast<double>(count - 1)));
}

std::vector<Band> MakeBands(std::span<const HistoryPoint> points, HistorySpan span, size_t count) {
    std::vector<Band> bands(count);
    const int64_t step = UsualStep(points);
    for (size_t i = 0; i < points.size(); ++i) {
        const HistoryPoint& point = points[i];
        const size_t place = Place(point.wall, span, count);
        bands[place].Add(point.minimum, point.maximum);
        if (i == 0 || point.wall - points[i - 1].wall > step + step / 2) continue;
        const HistoryPoint& last = points[i - 1];
        const size_t begin = Place(last.wall, span, count);
        for (size_t x = begin + 1; x < place; ++x) {
            const double part = static_cast<double>(x - begin) / static_cast<double>(place - begin);
            bands[x].Add(last.minimum + (point.minimum - last.minimum) * part,
                         last.maximum + (point.maximum - last.maximum) * part);
        }
    }
    return bands;
}

std::string RightAligned(std::string_view text, size_t width) {
    const size_t length = Width(text);
    return std::string(length < width ? width - length : 0, ' ') + std::string(text);
}

}  // namespace

std::vector<std::string> PlotLines(const Column& column, std::span<const HistoryPoint> points,
                                   const PlotFrame& frame) {
    if (points.empty()) return {RightAligned("-", frame.labelWidth) + "  no values"};
    Canvas canvas(PlotWidth(frame), frame.height);
    const Range range = ChooseRange(column, points);
    const auto top = static_cast<double>(canvas.Down() - 1);
    const auto height = [&](double value) {
        const double part = (value - range.low) / (range.high - range.low);
        return static_cast<size_t>(std::clamp(std::round(part * top), 0.0, top));
    };
    const std::vector<Band> bands = MakeBands(points, frame.span, canvas.Across());
    for (size_t x = 0; x < bands.size(); ++x) {
        if (!bands[x].isThere) continue;
        size_t low = height(bands[x].low), high = height(bands[x].high);
        // A step between two neighbours stays a line.
        if (x > 0 && bands[x - 1].isThere) {
            low = std::min(low, height(bands[x - 1].high));
            high = std::max(high, height(bands[x - 1].low));
        }
        for (size_t y = low; y <= high; ++y) canvas.Set(x, y);
    }
    std::vector<std::string> lines;
    for (size_t i = 0; i < frame.height; ++i) {
        const double part = 1 - static_cast<double>(i) / static_cast<double>(frame.height - 1);
        const bool hasLabel =
            i == 0 || i + 1 == frame.height || (frame.height > 5 && i == frame.height / 2);
        const double value = range.low + (range.high - range.low) * part;
        lines.push_back(RightAligned(hasLabel ? column.format.Text(value) : "", frame.labelWidth) +
                        kAxis[frame.isBraille ? 1 : 0] + canvas.Line(i, frame.isBraille));
        while (lines.back().ends_with(' ')) lines.back().pop_back();
    }
    return lines;
}

std::vector<std::string> TimeAxisLines(std::span<const Mark> marks, const PlotFrame& frame) {
    const size_t width = PlotWidth(frame);
    const size_t left = frame.labelWidth + 2;
    std::string signs(width, ' '), times(left, ' ');
    std::string line(left - 1, ' ');
    line += frame.isBraille ? "└" : "+";
    const int64_t length = frame.span.to - frame.span.from;
    const std::string first = TimeText(frame.span.from, frame.span.from, frame.span.to, 0);
    const std::string sample = length / static_cast<int64_t>(width) > 100'000'000
                                   ? first.substr(0, first.rfind('.'))
                                   : first;
    const size_t distance = (sample.size() + 4 + 9) / 10 * 10;
    for (size_t x = 0; x < width; ++x) {
        const bool isTick = x % distance == 0;
        line += frame.isBraille ? (isTick ? "┬" : "─") : (isTick ? "+" : "-");
        if (!isTick || x + sample.size() > width) continue;
        const int64_t wall = frame.span.from + static_cast<int64_t>(static_cast<double>(length) *
                                                                    static_cast<double>(x) /
                                                                    static_cast<double>(width));
        times.resize(left + x, ' ');
        times += TimeText(wall, frame.span.from, frame.span.to, 0).substr(0, sample.size());
    }
    for (const Mark& mark : marks) signs[Place(mark.time.wall, frame.span, width)] = '^';
    std::vector<std::string> lines = {line, times};
    if (!marks.empty()) {
        lines.insert(lines.begin() + 1,
                     std::string(left, ' ') + signs.substr(0, signs.rfind('^') + 1));
    }
    return lines;
}

int64_t DotLength(const PlotFrame& frame) {
    const auto dots = static_cast<int64_t>(PlotWidth(frame) * kDotsAcross);
    return (frame.span.to - frame.span.from + dots - 1) / dots;
}

bool ShowsBraille() {
    if (isatty(STDOUT_FILENO) == 0) return true;
    const char* const terminal = std::getenv("TERM");
    const std::string_view kind = terminal != nullptr ? terminal : "dumb";
    if (kind == "linux" || kind == "dumb") return false;  // their fonts have no braille
    for (const char* const name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* const value = std::getenv(name);
        if (value == nullptr || *value == '\0') continue;
        const std::string_view set = value;
        return set.ends_with("UTF-8") || set.ends_with("utf8");
    }
    return false;
}
