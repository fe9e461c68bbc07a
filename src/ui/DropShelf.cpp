#include "ui/DropShelf.h"

#include <xcb/xcb.h>

#include <QGuiApplication>
#include <QPainter>
#include <QPainterPath>
#include <QScreen>
#include <QWidget>
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "ui/RectText.h"

namespace velquin {
namespace {

constexpr int screenMargin = 8;
constexpr int hangGap = 6;

std::optional<QRect> availableAreaFor(const QRect& rect) {
    const QList<QScreen*> screens = QGuiApplication::screens();
    for (QScreen* screen : screens) {
        if (screen->geometry().intersects(rect)) return screen->availableGeometry();
    }
    if (QScreen* primary = QGuiApplication::primaryScreen()) return primary->availableGeometry();
    return std::nullopt;
}

// Whether a compositing manager runs on the X display (it owns the "_NET_WM_CM_S0" selection). Off X11
// the answer is yes: there the platform always composes.
bool compositing() {
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (!x11 || !x11->connection()) return true;
    xcb_connection_t* c = x11->connection();
    static constexpr char name[] = "_NET_WM_CM_S0";
    xcb_intern_atom_reply_t* atom =
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, sizeof name - 1, name), nullptr);
    if (!atom) return true;
    xcb_get_selection_owner_reply_t* owner =
        xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, atom->atom), nullptr);
    const bool owned = owner && owner->owner != XCB_NONE;
    std::free(owner);
    std::free(atom);
    return owned;
}

QPainterPath roundedShape(const QRectF& rect) {
    QPainterPath shape;
    shape.addRoundedRect(rect.adjusted(0.5, 0.5, -0.5, -0.5), 14, 14);
    return shape;
}

}  // namespace

// Paints the dark rounded background itself: there is no system material to borrow, and a translucent
// window lets the corners show what is behind when a compositor runs.
class DropShelf::Window : public QWidget {
  public:
    Window()
        : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                               Qt::WindowDoesNotAcceptFocus) {
        setAttribute(Qt::WA_ShowWithoutActivating);
        setAttribute(Qt::WA_TranslucentBackground);
        setWindowTitle(QStringLiteral("Velquin drop shelf"));
        setFixedSize(windowWidth, windowHeight);
    }

  protected:
    void showEvent(QShowEvent* event) override {
        QWidget::showEvent(event);
        // Without a compositor the transparent corners would show black: cut them off instead.
        if (compositing()) {
            clearMask();
        } else {
            setMask(QRegion(roundedShape(QRectF(rect())).toFillPolygon().toPolygon()));
        }
    }

    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        const QPainterPath shape = roundedShape(QRectF(rect()));
        painter.fillPath(shape, QColor(28, 28, 32, 224));
        painter.strokePath(shape, QPen(QColor(255, 255, 255, 36), 1));
    }
};

DropShelf::DropShelf(LogSink log)
    : log_(std::move(log)),
      window_(std::make_unique<Window>()),
      zone_(std::make_unique<DropZoneView>(window_.get())) {
    zone_->setGeometry(window_->rect());
    // The window is always dark, whatever the desktop theme, so its texts are always light.
    QPalette hud = zone_->palette();
    hud.setColor(QPalette::WindowText, QColor(255, 255, 255, 235));
    zone_->setPalette(hud);

    zone_->onDrop = [this](const QUrl& url) {
        if (onDrop) onDrop(url);
    };
    zone_->onHover = [this](bool hovering) {
        if (hovering) {
            hideTimer_.stop();
        } else {
            scheduleHide(0.8);
        }
    };

    hideTimer_.setSingleShot(true);
    QObject::connect(&hideTimer_, &QTimer::timeout, &hideTimer_, [this] { hide(); });
}

DropShelf::~DropShelf() = default;

QWidget& DropShelf::window() {
    return *window_;
}

QPoint DropShelf::placement(const QRect& rect, const std::optional<QRect>& available) {
    const QRectF r(rect);
    double x = r.center().x() - windowWidth / 2.0;
    double y = r.bottom() + hangGap;  // QRectF's bottom is y + height
    if (available) {
        const QRectF area(*available);
        x = std::min(std::max(x, area.left() + screenMargin), area.right() - windowWidth - screenMargin);
        // A bar at the bottom of the screen gets the shelf above it instead.
        if (y + windowHeight > area.bottom() - screenMargin) y = r.top() - hangGap - windowHeight;
        y = std::min(std::max(y, area.top() + screenMargin), area.bottom() - windowHeight - screenMargin);
    }
    return QPoint(static_cast<int>(std::lround(x)), static_cast<int>(std::lround(y)));
}

void DropShelf::show(const QRect& under) {
    hideTimer_.stop();
    if (isVisible_) return;

    zone_->showingResult = false;
    zone_->title = QString::fromLatin1(DropZoneView::idleTitle);
    zone_->detail = QString::fromLatin1(DropZoneView::idleDetail);
    zone_->update();

    window_->move(placement(under, availableAreaFor(under)));
    window_->show();
    isVisible_ = true;
    if (log_) {
        log_("shelf: ordered front at " + rectText(window_->frameGeometry()) +
             ", panel visible=" + (window_->isVisible() ? "true" : "false"));
    }
}

void DropShelf::scheduleHide(double after) {
    hideTimer_.stop();
    hideTimer_.start(static_cast<int>(std::lround(std::max(after, 0.0) * 1000)));
}

std::optional<double> DropShelf::pendingHideSeconds() const {
    if (!hideTimer_.isActive()) return std::nullopt;
    return hideTimer_.interval() / 1000.0;
}

void DropShelf::showWorking(const QString& name) {
    zone_->resultLines = {QStringLiteral("Listening to file\u2026"), QString(), name};
    zone_->showingResult = true;
    zone_->update();
    hideTimer_.stop();
}

void DropShelf::showProgress(const QString& text) {
    if (zone_->resultLines.size() < 2) return;
    zone_->resultLines[1] = text;
    zone_->update();
}

void DropShelf::showResult(const QStringList& lines) {
    zone_->resultLines = lines;
    zone_->showingResult = true;
    zone_->update();
    if (!isVisible_) {
        window_->show();
        isVisible_ = true;
    }
}

void DropShelf::hide() {
    hideTimer_.stop();
    if (!isVisible_) return;
    if (log_) log_("shelf: hide");
    window_->hide();
    isVisible_ = false;
}

}  // namespace velquin
