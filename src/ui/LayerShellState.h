#pragma once
// What the layer-shell bar keeps of its Wayland connection, shared by the files that speak for it
// (LayerShellBar.cpp: outputs, pointer, surface; LayerShellDrops.cpp: files dragged onto it). Private to
// them.

#include <wayland-client.h>

#include <QImage>
#include <QList>
#include <QSocketNotifier>
#include <QString>
#include <QUrl>
#include <algorithm>
#include <array>
#include <climits>
#include <memory>
#include <vector>

#include "ui/BarPlacement.h"
#include "ui/EdgeDrag.h"
#include "ui/LayerShellBar.h"
#include "ui/LayerShellProtocol.h"
#include "ui/RelativePointerProtocol.h"

namespace velquin {

using layerShell::zwlr_layer_shell_v1;
using layerShell::zwlr_layer_surface_v1;
using relativePointer::zwp_relative_pointer_manager_v1;
using relativePointer::zwp_relative_pointer_v1;

struct LayerOutput {
    LayerShellBar::State* state = nullptr;
    wl_output* output = nullptr;
    uint32_t id = 0;
    QString name;
    int width = 0, height = 0;  // of the mode, in pixels
    int scale = 1;
    bool turned = false;  // a quarter turn: the mode's height runs along the top edge
    int shownScale = 0;   // the scale the owner last heard of
    // Surface units along the top edge.
    int logicalWidth() const { return (turned ? height : width) / std::max(scale, 1); }
};

struct LayerShellBar::State {
    struct Buffer {
        State* state = nullptr;
        wl_buffer* buffer = nullptr;
        uchar* data = nullptr;
        size_t bytes = 0;
        QSize size;
        bool busy = false;
    };

    LayerShellBar* owner = nullptr;
    wl_display* display = nullptr;
    wl_registry* registry = nullptr;
    wl_compositor* compositor = nullptr;
    wl_shm* shm = nullptr;
    zwlr_layer_shell_v1* shell = nullptr;
    wl_seat* seat = nullptr;
    wl_pointer* pointer = nullptr;
    zwp_relative_pointer_manager_v1* relativeManager = nullptr;
    zwp_relative_pointer_v1* relative = nullptr;
    wl_data_device_manager* dataManager = nullptr;
    wl_data_device* dataDevice = nullptr;
    wl_data_offer* offer = nullptr;  // of the drag over the bar
    bool offerHasUris = false;
    std::vector<std::unique_ptr<LayerOutput>> outputs;
    LayerOutput* on = nullptr;

    wl_surface* surface = nullptr;
    zwlr_layer_surface_v1* layer = nullptr;
    bool configured = false;
    bool drawPending = false;
    QImage image;
    std::array<Buffer, 2> buffers;
    int margin = barPlacement::margin;

    bool inside = false;
    double x = 0, y = 0;  // pointer, surface coordinates
    EdgeDrag drag;
    // Without relative motion the bar stays put until the button goes up: only then are its surface
    // coordinates the pointer's motion on every compositor. This is where it will go.
    int dropMargin = 0;
    std::unique_ptr<QSocketNotifier> notifier;

    ~State();
    void flush() { wl_display_flush(display); }
    void watchDrops();
    void dropOffer();
    QList<QUrl> receiveUris();
    void createSurface();
    void destroySurface();
    void applyMargin();
    void draw();
    Buffer* freeBuffer(QSize size);
    void dropBuffer(Buffer& b);
    int scale() const { return on ? std::max(on->scale, 1) : 1; }
    int widest() const {
        const int width = on ? on->logicalWidth() : 0;
        return width > 0 ? std::max(0, width - surfaceSize().width()) : INT_MAX;
    }
    QSize surfaceSize() const { return (QSizeF(image.size()) / image.devicePixelRatio()).toSize(); }
    void pointerMoved(double dx, double dy);
    void watchRelativeMotion(wl_pointer* live);
};

}  // namespace velquin
