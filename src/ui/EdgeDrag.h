#pragma once
// A press on the layer-shell bar that turns into a drag along the top edge once the pointer has gone far
// enough, and otherwise stays a click. The bar's place is its margin, its distance from the right edge,
// so the pointer going left by d makes the margin d larger. Motion comes as deltas summed from the
// press: compositors disagree about surface coordinates while the surface moves under a held button,
// but not about how far the pointer went. Pure; main thread only.

namespace velquin {

class EdgeDrag {
  public:
    void press(int margin);
    // The pointer moved by (dx, dy). The margin the bar should now have, within 0…widest; the margin of
    // the press while it is still a click.
    int move(double dx, double dy, int widest, int threshold);
    // The button went up: true when it was a drag (the margin is then the one `move` gave last).
    bool release();
    bool pressed() const { return pressed_; }
    bool moving() const { return moving_; }
    void cancel() { pressed_ = moving_ = false; }

  private:
    bool pressed_ = false;
    bool moving_ = false;
    int start_ = 0;
    double dx_ = 0, dy_ = 0;
};

}  // namespace velquin
