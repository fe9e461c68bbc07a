#pragma once
// Musical keys, key estimates and every text form in which a key is shown.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velquin {

struct MusicalKey {
    int64_t tonic = 0;  // pitch class 0…11, 0 = C
    bool isMinor = false;

    // The 24 keys: for tonic 0…11 the major key, then the minor key. Ties in ranking keep this order.
    static const std::array<MusicalKey, 24>& all();

    std::string camelot() const;    // "8B", "5A", …
    std::string longName() const;   // "E♭ minor"
    std::string shortName() const;  // "E♭m", "F♯"
    bool isRelativeOf(const MusicalKey& other) const;

    friend bool operator==(const MusicalKey&, const MusicalKey&) = default;
};

extern const std::array<std::string_view, 12> majorNames;
extern const std::array<std::string_view, 12> minorNames;
// Sharps in plain ASCII, for diagnostics.
extern const std::array<std::string_view, 12> asciiNoteNames;

struct KeyEstimate {
    enum class RelativePreference { both, major, minor };

    std::optional<MusicalKey> key;
    std::optional<MusicalKey> alternative;
    double confidence = 0;            // 0…1
    std::array<double, 12> chroma{};  // by pitch class; largest 1.0 when a key was decided
    double tuningCents = 0;           // offset from A440 equal temperament, −50…+50

    static const KeyEstimate unknown;

    // Text for the bar and the menu ("Cm/E♭", "5A/5B"); absent without a key.
    std::optional<std::string> shortText(bool camelot, RelativePreference preference) const;
    // The keys `shortText` would show: the first, and the relative when both are shown.
    std::optional<std::pair<MusicalKey, std::optional<MusicalKey>>> displayKeys(
        RelativePreference preference) const;
};

std::string_view textName(KeyEstimate::RelativePreference preference);
std::optional<KeyEstimate::RelativePreference> relativePreferenceFromTextName(std::string_view name);
const std::array<KeyEstimate::RelativePreference, 3>& allRelativePreferences();

struct KeyProfile {
    using Table = std::array<double, 12>;  // by semitones above the tonic
    static const Table krumhanslMajor, krumhanslMinor, temperleyMajor, temperleyMinor, shaathMajor,
        shaathMinor;
    static const Table& blendMajor();
    static const Table& blendMinor();
    enum class Name { blend, krumhansl, temperley, shaath };
    // The major and minor tables of a profile.
    static std::pair<const Table*, const Table*> tables(Name name);
};

}  // namespace velquin
