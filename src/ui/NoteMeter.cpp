#include "ui/NoteMeter.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "analysis/Format.h"

namespace velquin {

const std::array<std::string_view, 12> NoteMeter::names = {"C",  "C♯", "D",  "D♯", "E",  "F",
                                                           "F♯", "G",  "G♯", "A",  "A♯", "B"};
const std::array<std::string_view, 9> NoteMeter::bars = {"▁", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};

namespace {
constexpr std::array<bool, 12> majorScale = {true,  false, true,  false, true,  true,
                                             false, true,  false, true,  false, true};
constexpr std::array<bool, 12> minorScale = {true,  false, true, true,  false, true,
                                             false, true,  true, false, true,  false};

std::array<NoteMeter::Cell, 12> meterCells(const double* chroma, size_t count,
                                           std::optional<MusicalKey> key) {
    std::array<NoteMeter::Cell, 12> cells;
    for (size_t i = 0; i < 12; ++i) {
        double v = i < count ? chroma[i] : 0.0;
        // NaN would index nowhere; it draws as the lowest bar like a missing note.
        if (!(v >= 0)) v = 0;
        v = std::min(v, 1.0);
        const auto level = static_cast<size_t>(std::round(v * 8));
        auto& cell = cells[i];
        cell.text = std::string(NoteMeter::names[i]);
        if (characterCount(NoteMeter::names[i]) < 2) cell.text += ' ';
        cell.text += NoteMeter::bars[level];
        cell.text += ' ';
        if (key) {
            const auto degree = static_cast<size_t>(((static_cast<int64_t>(i) - key->tonic) % 12 + 12) % 12);
            cell.bold = degree == 0;
            cell.faint = !(key->isMinor ? minorScale : majorScale)[degree];
        }
    }
    return cells;
}
}  // namespace

std::array<NoteMeter::Cell, 12> NoteMeter::cells(const std::vector<double>& chroma,
                                                 std::optional<MusicalKey> key) {
    return meterCells(chroma.data(), chroma.size(), key);
}

std::array<NoteMeter::Cell, 12> NoteMeter::cells(const std::array<double, 12>& chroma,
                                                 std::optional<MusicalKey> key) {
    return meterCells(chroma.data(), chroma.size(), key);
}

std::string NoteMeter::plainText(const std::array<Cell, 12>& cells) {
    std::string text;
    for (const auto& cell : cells) text += cell.text;
    return text;
}

}  // namespace velquin
