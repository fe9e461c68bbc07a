#pragma once
// The text form of a screen rectangle used in log lines, e.g. "QRect(100,200 300x150)".

#include <QRect>
#include <string>

namespace velquin {

std::string rectText(const QRect& rect);

}  // namespace velquin
