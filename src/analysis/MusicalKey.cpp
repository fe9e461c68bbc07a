#include "analysis/MusicalKey.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "analysis/Format.h"

namespace velquin {

namespace {

int64_t wrap12(int64_t value) {
    return ((value % 12) + 12) % 12;
}

MusicalKey relativeOf(const MusicalKey& key) {
    return key.isMinor ? MusicalKey{wrap12(key.tonic + 3), false} : MusicalKey{wrap12(key.tonic + 9), true};
}

}  // namespace

const std::array<std::string_view, 12> majorNames = {"C",  "D♭", "D",  "E♭", "E",  "F",
                                                     "F♯", "G",  "A♭", "A",  "B♭", "B"};
const std::array<std::string_view, 12> minorNames = {"C",  "C♯", "D",  "E♭", "E",  "F",
                                                     "F♯", "G",  "G♯", "A",  "B♭", "B"};
const std::array<std::string_view, 12> asciiNoteNames = {"C",  "C#", "D",  "D#", "E",  "F",
                                                         "F#", "G",  "G#", "A",  "A#", "B"};

const std::array<MusicalKey, 24>& MusicalKey::all() {
    static const std::array<MusicalKey, 24> keys = [] {
        std::array<MusicalKey, 24> result{};
        for (int64_t pitchClass = 0; pitchClass < 12; ++pitchClass) {
            result[static_cast<size_t>(2 * pitchClass)] = {pitchClass, false};
            result[static_cast<size_t>(2 * pitchClass + 1)] = {pitchClass, true};
        }
        return result;
    }();
    return keys;
}

std::string MusicalKey::camelot() const {
    int64_t n = wrap12(7 * tonic) + (isMinor ? 5 : 8);
    if (n >= 13) n -= 12;
    return std::to_string(n) + (isMinor ? "A" : "B");
}

std::string MusicalKey::longName() const {
    const auto& names = isMinor ? minorNames : majorNames;
    return std::string(names[static_cast<size_t>(wrap12(tonic))]) + (isMinor ? " minor" : " major");
}

std::string MusicalKey::shortName() const {
    if (isMinor) return std::string(minorNames[static_cast<size_t>(wrap12(tonic))]) + "m";
    return std::string(majorNames[static_cast<size_t>(wrap12(tonic))]);
}

bool MusicalKey::isRelativeOf(const MusicalKey& other) const {
    return *this == relativeOf(other);
}

const KeyEstimate KeyEstimate::unknown{};

std::optional<std::pair<MusicalKey, std::optional<MusicalKey>>> KeyEstimate::displayKeys(
    RelativePreference preference) const {
    if (!key) return std::nullopt;
    const MusicalKey k = *key;
    if (alternative && alternative->isRelativeOf(k)) {
        const MusicalKey a = *alternative;
        switch (preference) {
            case RelativePreference::both:
                return std::pair{k, std::optional<MusicalKey>(a)};
            case RelativePreference::major:
                return std::pair{k.isMinor ? a : k, std::optional<MusicalKey>()};
            case RelativePreference::minor:
                return std::pair{k.isMinor ? k : a, std::optional<MusicalKey>()};
        }
    }
    return std::pair{k, std::optional<MusicalKey>()};
}

std::optional<std::string> KeyEstimate::shortText(bool camelot, RelativePreference preference) const {
    const auto keys = displayKeys(preference);
    if (!keys) return std::nullopt;
    const auto text = [camelot](const MusicalKey& k) { return camelot ? k.camelot() : k.shortName(); };
    std::string result = text(keys->first);
    if (keys->second) {
        result += '/';
        result += text(*keys->second);
    }
    return result;
}

std::string_view textName(KeyEstimate::RelativePreference preference) {
    switch (preference) {
        case KeyEstimate::RelativePreference::both:
            return "both";
        case KeyEstimate::RelativePreference::major:
            return "major";
        case KeyEstimate::RelativePreference::minor:
            return "minor";
    }
    return "both";
}

std::optional<KeyEstimate::RelativePreference> relativePreferenceFromTextName(std::string_view name) {
    for (auto preference : allRelativePreferences())
        if (textName(preference) == name) return preference;
    return std::nullopt;
}

const std::array<KeyEstimate::RelativePreference, 3>& allRelativePreferences() {
    static const std::array<KeyEstimate::RelativePreference, 3> all = {
        KeyEstimate::RelativePreference::both, KeyEstimate::RelativePreference::major,
        KeyEstimate::RelativePreference::minor};
    return all;
}

const KeyProfile::Table KeyProfile::krumhanslMajor = {6.35, 2.23, 3.48, 2.33, 4.38, 4.09,
                                                      2.52, 5.19, 2.39, 3.66, 2.29, 2.88};
const KeyProfile::Table KeyProfile::krumhanslMinor = {6.33, 2.68, 3.52, 5.38, 2.6,  3.53,
                                                      2.54, 4.75, 3.98, 2.69, 3.34, 3.17};
const KeyProfile::Table KeyProfile::temperleyMajor = {5.0, 2.0, 3.5, 2.0, 4.5, 4.0,
                                                      2.0, 4.5, 2.0, 3.5, 1.5, 4.0};
const KeyProfile::Table KeyProfile::temperleyMinor = {5.0, 2.0, 3.5, 4.5, 2.0, 4.0,
                                                      2.0, 4.5, 3.5, 2.0, 1.5, 4.0};
const KeyProfile::Table KeyProfile::shaathMajor = {6.6, 2.0, 3.5, 2.3, 4.6, 4.0,
                                                   2.5, 5.2, 2.4, 3.7, 2.3, 3.4};
const KeyProfile::Table KeyProfile::shaathMinor = {6.5, 2.7, 3.5, 5.4, 2.6, 3.5,
                                                   2.5, 5.2, 4.0, 2.7, 4.3, 3.2};

namespace {
KeyProfile::Table mean(const KeyProfile::Table& a, const KeyProfile::Table& b) {
    KeyProfile::Table result{};
    for (size_t i = 0; i < 12; ++i) result[i] = (a[i] + b[i]) * 0.5;
    return result;
}
}  // namespace

const KeyProfile::Table& KeyProfile::blendMajor() {
    static const Table table = mean(shaathMajor, temperleyMajor);
    return table;
}

const KeyProfile::Table& KeyProfile::blendMinor() {
    static const Table table = mean(shaathMinor, temperleyMinor);
    return table;
}

std::pair<const KeyProfile::Table*, const KeyProfile::Table*> KeyProfile::tables(Name name) {
    switch (name) {
        case Name::krumhansl:
            return {&krumhanslMajor, &krumhanslMinor};
        case Name::temperley:
            return {&temperleyMajor, &temperleyMinor};
        case Name::shaath:
            return {&shaathMajor, &shaathMinor};
        case Name::blend:
            break;
    }
    return {&blendMajor(), &blendMinor()};
}

}  // namespace velquin
