#include "ui/EdgeDrag.h"

#include <algorithm>
#include <cmath>

namespace velquin {

void EdgeDrag::press(int margin) {
    pressed_ = true;
    moving_ = false;
    start_ = margin;
    dx_ = dy_ = 0;
}

int EdgeDrag::move(double dx, double dy, int widest, int threshold) {
    if (!pressed_) return start_;
    dx_ += dx;
    dy_ += dy;
    if (!moving_ && std::abs(dx_) + std::abs(dy_) < threshold) return start_;
    moving_ = true;
    const long wanted = static_cast<long>(start_) - std::lround(dx_);
    return static_cast<int>(std::clamp(wanted, 0L, static_cast<long>(std::max(widest, 0))));
}

bool EdgeDrag::release() {
    const bool dragged = pressed_ && moving_;
    pressed_ = moving_ = false;
    return dragged;
}

}  // namespace velquin
