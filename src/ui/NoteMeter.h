#pragma once
// The note-strength line of the menu, without fonts or colours: the interface styles each cell.

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/MusicalKey.h"

namespace velquin {

struct NoteMeter {
    struct Cell {
        std::string text;    // note name padded to two characters, a bar, a blank
        bool bold = false;   // the key's tonic
        bool faint = false;  // outside the key's scale
    };
    static const std::array<std::string_view, 12> names;
    static const std::array<std::string_view, 9> bars;
    static std::array<Cell, 12> cells(const std::vector<double>& chroma, std::optional<MusicalKey> key);
    static std::array<Cell, 12> cells(const std::array<double, 12>& chroma, std::optional<MusicalKey> key);
    // The twelve cell texts joined: 48 characters ending in a blank.
    static std::string plainText(const std::array<Cell, 12>& cells);
};

}  // namespace velquin
