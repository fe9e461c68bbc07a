#include "fileanalysis/ResultLine.h"

#include "analysis/Format.h"

namespace velquin {

std::string resultLine(const TempoEstimate& tempo, const KeyEstimate& key) {
    const std::string tempoText = tempo.bpm <= 0
                                      ? "     no tempo     "
                                      : format("%7.2f BPM (%3.0f%%)", tempo.bpm, tempo.confidence * 100);
    std::string keyText = "no key";
    if (key.key) {
        const std::string alternative = key.alternative ? " or " + key.alternative->shortName() : "";
        keyText = format("%-4s %-4s (%3.0f%%)%s  tuning %+5.1f cents", key.key->shortName(),
                         key.key->camelot(), key.confidence * 100, alternative, key.tuningCents);
    }
    return tempoText + "  " + keyText;
}

}  // namespace velquin
