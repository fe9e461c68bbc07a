#include "ui/RectText.h"

#include <QDebug>
#include <QString>

namespace velquin {

std::string rectText(const QRect& rect) {
    QString text;
    QDebug(&text).nospace().noquote() << rect;
    return text.toStdString();
}

}  // namespace velquin
