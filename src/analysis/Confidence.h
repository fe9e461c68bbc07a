#pragma once

namespace velquin {

// Below this a reading is too weak to be shown as a fact: the bar shows no key, the ring turns amber,
// a timeline prints "-", and no tag is written.
inline constexpr double weakConfidence = 0.35;

}  // namespace velquin
