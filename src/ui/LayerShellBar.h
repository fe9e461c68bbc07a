#pragma once
// The bar on Wayland compositors with the wlr layer shell (sway, KDE Plasma, Hyprland, labwc, Wayfire):
// a surface of its own on the overlay layer, anchored to the top right of an output, that never takes
// the keyboard focus. A plain xdg window can be neither placed nor kept above; a layer surface can,
// but Qt 6.4 cannot give one of its windows that role, so the bar speaks the protocol on a Wayland
// connection of its own and shows images the owner renders (the hidden BarWindow draws them). A click
// calls onClick; dragging moves it along the top edge (its distance from the right edge, the margin),
// and onMoved reports where it ended, for the owner to remember per output; files dragged onto it from
// other programs arrive through onDrop. Main thread only.

#include <QImage>
#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>
#include <functional>
#include <memory>

namespace velquin {

class LayerShellBar : public QObject {
    Q_OBJECT

  public:
    // Connects to the compositor in WAYLAND_DISPLAY; null when there is none or it lacks the layer shell.
    static std::unique_ptr<LayerShellBar> create();
    ~LayerShellBar() override;

    // Shows the image at the current margin, or updates it; its device pixel ratio is the buffer scale.
    void show(const QImage& image);
    // The scale of the bar's output (1 until the compositor says): images drawn at it stay sharp.
    int scale() const;
    void hide();
    // Distance from the right edge of the output; the top margin is fixed.
    void setMargin(int right);
    int margin() const;
    // The output the bar is on ("" until the compositor says), and its width (0 when unknown).
    QString outputName() const;

    std::function<void()> onClick;
    // Files dropped on the bar (the URLs of a text/uri-list drag).
    std::function<void(const QList<QUrl>& urls)> onDrop;
    std::function<void(int margin)> onMoved;
    // The bar arrived on an output (also the first time), or its output took another scale: the owner
    // may move it to that output's margin and draw it again.
    std::function<void(const QString& output)> onOutput;

    struct State;

  private:
    explicit LayerShellBar(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

}  // namespace velquin
