#include "ui/LayerShellBar.h"

#include <fcntl.h>
#include <linux/input-event-codes.h>
#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>

#include <QApplication>
#include <QSocketNotifier>
#include <QTimer>
#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <vector>

#include "ui/LayerShellState.h"

namespace velquin {

namespace {

using State = LayerShellBar::State;

void outputGeometry(void* data, wl_output*, int32_t, int32_t, int32_t, int32_t, int32_t, const char*,
                    const char*, int32_t transform) {
    static_cast<LayerOutput*>(data)->turned = transform % 2 == 1;  // 90 and 270, also flipped
}
void outputMode(void* data, wl_output*, uint32_t flags, int32_t width, int32_t height, int32_t) {
    if (!(flags & WL_OUTPUT_MODE_CURRENT)) return;
    static_cast<LayerOutput*>(data)->width = width;
    static_cast<LayerOutput*>(data)->height = height;
}
void outputDone(void* data, wl_output*);
void outputScale(void* data, wl_output*, int32_t scale) {
    static_cast<LayerOutput*>(data)->scale = scale;
}
void outputName(void* data, wl_output*, const char* name) {
    static_cast<LayerOutput*>(data)->name = QString::fromUtf8(name);
}
void outputDescription(void*, wl_output*, const char*) {}
const wl_output_listener outputListener = {outputGeometry, outputMode, outputDone,
                                           outputScale,    outputName, outputDescription};

void pointerEnter(void* data, wl_pointer* pointer, uint32_t, wl_surface* surface, wl_fixed_t x,
                  wl_fixed_t y) {
    auto* s = static_cast<State*>(data);
    s->watchRelativeMotion(pointer);
    s->inside = surface == s->surface && surface != nullptr;
    s->x = wl_fixed_to_double(x);
    s->y = wl_fixed_to_double(y);
}
void pointerLeave(void* data, wl_pointer*, uint32_t, wl_surface*) {
    static_cast<State*>(data)->inside = false;
}
void pointerMotion(void* data, wl_pointer*, uint32_t, wl_fixed_t x, wl_fixed_t y) {
    auto* s = static_cast<State*>(data);
    const double dx = wl_fixed_to_double(x) - s->x, dy = wl_fixed_to_double(y) - s->y;
    s->x += dx;
    s->y += dy;
    if (!s->relative) s->pointerMoved(dx, dy);
}
void relativeMotion(void* data, zwp_relative_pointer_v1*, uint32_t, uint32_t, wl_fixed_t dx, wl_fixed_t dy,
                    wl_fixed_t, wl_fixed_t) {
    static_cast<State*>(data)->pointerMoved(wl_fixed_to_double(dx), wl_fixed_to_double(dy));
}
const relativePointer::Listener relativeListener = {relativeMotion};

void clickLater(LayerShellBar* owner) {
    // After this dispatch: the menu may run a loop of its own.
    QTimer::singleShot(0, owner, [owner] {
        if (owner->onClick) owner->onClick();
    });
}
void pointerButton(void* data, wl_pointer*, uint32_t, uint32_t, uint32_t button, uint32_t state) {
    auto* s = static_cast<State*>(data);
    const bool down = state == WL_POINTER_BUTTON_STATE_PRESSED;
    if (button == BTN_RIGHT && down && s->inside) clickLater(s->owner);
    if (button != BTN_LEFT) return;
    if (down) {
        if (s->inside) s->drag.press(s->margin);
        s->dropMargin = s->margin;
        return;
    }
    if (!s->drag.pressed()) return;
    if (!s->drag.release()) {
        clickLater(s->owner);
        return;
    }
    if (!s->relative && s->dropMargin != s->margin) {
        s->margin = s->dropMargin;
        s->applyMargin();
    }
    if (s->owner->onMoved) s->owner->onMoved(s->margin);
}
void pointerAxis(void*, wl_pointer*, uint32_t, uint32_t, wl_fixed_t) {}
const wl_pointer_listener pointerListener = {pointerEnter, pointerLeave, pointerMotion, pointerButton,
                                             pointerAxis,  nullptr,      nullptr,       nullptr,
                                             nullptr,      nullptr};

void seatCapabilities(void* data, wl_seat* seat, uint32_t capabilities) {
    auto* s = static_cast<State*>(data);
    const bool hasPointer = capabilities & WL_SEAT_CAPABILITY_POINTER;
    if (hasPointer && !s->pointer) {
        s->pointer = wl_seat_get_pointer(seat);
        wl_pointer_add_listener(s->pointer, &pointerListener, s);
    } else if (!hasPointer && s->pointer) {
        if (s->relative) relativePointer::destroy(s->relative);
        s->relative = nullptr;
        s->drag.cancel();
        wl_pointer_destroy(s->pointer);
        s->pointer = nullptr;
    }
}
void seatName(void*, wl_seat*, const char*) {}
const wl_seat_listener seatListener = {seatCapabilities, seatName};

void registryGlobal(void* data, wl_registry* registry, uint32_t id, const char* interface, uint32_t version) {
    auto* s = static_cast<State*>(data);
    const auto bind = [&](const wl_interface* type, uint32_t highest) {
        return wl_registry_bind(registry, id, type, std::min(version, highest));
    };
    if (std::strcmp(interface, wl_compositor_interface.name) == 0) {
        s->compositor = static_cast<wl_compositor*>(bind(&wl_compositor_interface, 4));
    } else if (std::strcmp(interface, wl_shm_interface.name) == 0) {
        s->shm = static_cast<wl_shm*>(bind(&wl_shm_interface, 1));
    } else if (std::strcmp(interface, zwlr_layer_shell_v1_interface.name) == 0) {
        s->shell = static_cast<zwlr_layer_shell_v1*>(bind(&zwlr_layer_shell_v1_interface, 1));
    } else if (std::strcmp(interface, zwp_relative_pointer_manager_v1_interface.name) == 0) {
        s->relativeManager = static_cast<zwp_relative_pointer_manager_v1*>(
            bind(&zwp_relative_pointer_manager_v1_interface, 1));
    } else if (std::strcmp(interface, wl_seat_interface.name) == 0 && !s->seat) {
        s->seat = static_cast<wl_seat*>(bind(&wl_seat_interface, 1));
        wl_seat_add_listener(s->seat, &seatListener, s);
    } else if (std::strcmp(interface, wl_data_device_manager_interface.name) == 0) {
        s->dataManager = static_cast<wl_data_device_manager*>(bind(&wl_data_device_manager_interface, 3));
    } else if (std::strcmp(interface, wl_output_interface.name) == 0) {
        auto output = std::make_unique<LayerOutput>();
        output->id = id;
        output->state = s;
        output->output = static_cast<wl_output*>(bind(&wl_output_interface, 4));
        wl_output_add_listener(output->output, &outputListener, output.get());
        s->outputs.push_back(std::move(output));
    }
}
void registryRemove(void* data, wl_registry*, uint32_t id) {
    auto* s = static_cast<State*>(data);
    const auto gone =
        std::find_if(s->outputs.begin(), s->outputs.end(), [id](auto& o) { return o->id == id; });
    if (gone == s->outputs.end()) return;
    if (s->on == gone->get()) s->on = nullptr;
    wl_output_destroy((*gone)->output);
    s->outputs.erase(gone);
}
const wl_registry_listener registryListener = {registryGlobal, registryRemove};

void surfaceEnter(void* data, wl_surface*, wl_output* output) {
    auto* s = static_cast<State*>(data);
    for (auto& o : s->outputs) {
        if (o->output != output || s->on == o.get()) continue;
        s->on = o.get();
        o->shownScale = o->scale;
        if (s->owner->onOutput) s->owner->onOutput(o->name);
    }
}
void surfaceLeave(void*, wl_surface*, wl_output*) {}
const wl_surface_listener surfaceListener = {surfaceEnter, surfaceLeave};

void outputDone(void* data, wl_output*) {
    // The bar's output took another scale: the owner draws it again, sharp at the new one.
    auto* o = static_cast<LayerOutput*>(data);
    if (o->shownScale == 0 || o->shownScale == o->scale) return;
    o->shownScale = o->scale;
    if (o->state->on == o && o->state->owner->onOutput) o->state->owner->onOutput(o->name);
}

void layerConfigure(void* data, zwlr_layer_surface_v1* layer, uint32_t serial, uint32_t, uint32_t) {
    auto* s = static_cast<State*>(data);
    layerShell::ackConfigure(layer, serial);
    s->configured = true;
    s->draw();
}
void layerClosed(void* data, zwlr_layer_surface_v1*) {
    // The compositor took it away (its output went): a new one goes where the compositor says.
    auto* s = static_cast<State*>(data);
    s->destroySurface();
    QTimer::singleShot(0, s->owner, [s] {
        if (!s->surface && !s->image.isNull()) s->createSurface();
    });
}
const layerShell::SurfaceListener layerListener = {layerConfigure, layerClosed};

void bufferRelease(void* data, wl_buffer*) {
    auto* b = static_cast<State::Buffer*>(data);
    b->busy = false;
    if (b->state->drawPending) b->state->draw();
}
const wl_buffer_listener bufferListener = {bufferRelease};

}  // namespace

void LayerShellBar::State::watchRelativeMotion(wl_pointer* live) {
    // Asked for only once the pointer is known to be live: sway 1.7 crashes on a relative pointer for a
    // wl_pointer whose device went away before the request arrived, as when the seat's pointer capability
    // comes and goes at once.
    if (relative || !relativeManager) return;
    relative = relativePointer::get(relativeManager, live);
    relativePointer::addListener(relative, &relativeListener, this);
}

void LayerShellBar::State::pointerMoved(double dx, double dy) {
    if (!drag.pressed()) return;
    const int wanted = drag.move(dx, dy, widest(), QApplication::startDragDistance());
    if (!relative) {
        dropMargin = wanted;
        return;
    }
    if (wanted == margin) return;
    margin = wanted;
    applyMargin();
}

LayerShellBar::State::~State() {
    destroySurface();
    dropOffer();
    if (dataDevice) wl_data_device_destroy(dataDevice);
    if (dataManager) wl_data_device_manager_destroy(dataManager);
    for (Buffer& b : buffers) dropBuffer(b);
    if (relative) relativePointer::destroy(relative);
    if (relativeManager) relativePointer::destroy(relativeManager);
    if (pointer) wl_pointer_destroy(pointer);
    if (seat) wl_seat_destroy(seat);
    for (auto& o : outputs) wl_output_destroy(o->output);
    if (shell) wl_proxy_destroy(reinterpret_cast<wl_proxy*>(shell));
    if (shm) wl_shm_destroy(shm);
    if (compositor) wl_compositor_destroy(compositor);
    if (registry) wl_registry_destroy(registry);
    if (display) wl_display_disconnect(display);
}

void LayerShellBar::State::createSurface() {
    surface = wl_compositor_create_surface(compositor);
    wl_surface_add_listener(surface, &surfaceListener, this);
    layer = layerShell::getLayerSurface(shell, surface, nullptr, layerShell::overlay, "velquin");
    layerShell::addListener(layer, &layerListener, this);
    const QSize size = surfaceSize();
    layerShell::setSize(layer, static_cast<uint32_t>(size.width()), static_cast<uint32_t>(size.height()));
    layerShell::setAnchor(layer, layerShell::anchorTop | layerShell::anchorRight);
    layerShell::setKeyboardInteractivity(layer, 0);
    layerShell::setMargin(layer, barPlacement::titleBarAllowance, margin, 0, 0);
    // The first commit carries no buffer; the configure that answers it lets the bar draw.
    wl_surface_commit(surface);
    flush();
}

void LayerShellBar::State::destroySurface() {
    if (layer) layerShell::destroy(layer);
    if (surface) wl_surface_destroy(surface);
    layer = nullptr;
    surface = nullptr;
    configured = false;
    inside = false;
    drag.cancel();
    if (display) flush();
}

void LayerShellBar::State::applyMargin() {
    if (!layer) return;
    layerShell::setMargin(layer, barPlacement::titleBarAllowance, margin, 0, 0);
    wl_surface_commit(surface);
    flush();
}

void LayerShellBar::State::dropBuffer(Buffer& b) {
    if (b.buffer) wl_buffer_destroy(b.buffer);
    if (b.data) munmap(b.data, b.bytes);
    b = Buffer{};
}

State::Buffer* LayerShellBar::State::freeBuffer(QSize size) {
    for (Buffer& b : buffers) {
        if (b.busy) continue;
        if (b.buffer && b.size == size) return &b;
        dropBuffer(b);
        const int stride = size.width() * 4;
        const size_t bytes = static_cast<size_t>(stride) * size.height();
        const int fd = memfd_create("velquin-bar", MFD_CLOEXEC);
        if (fd < 0) return nullptr;
        void* data = ftruncate(fd, static_cast<off_t>(bytes)) == 0
                         ? mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)
                         : MAP_FAILED;
        if (data == MAP_FAILED) {
            close(fd);
            return nullptr;
        }
        wl_shm_pool* pool = wl_shm_create_pool(shm, fd, static_cast<int32_t>(bytes));
        b.buffer =
            wl_shm_pool_create_buffer(pool, 0, size.width(), size.height(), stride, WL_SHM_FORMAT_ARGB8888);
        wl_shm_pool_destroy(pool);
        close(fd);
        b.state = this;
        b.data = static_cast<uchar*>(data);
        b.bytes = bytes;
        b.size = size;
        wl_buffer_add_listener(b.buffer, &bufferListener, &b);
        return &b;
    }
    return nullptr;
}

void LayerShellBar::State::draw() {
    if (!configured || image.isNull()) return;
    Buffer* b = freeBuffer(image.size());
    drawPending = b == nullptr;
    if (!b) return;
    // ARGB8888 is premultiplied, in native byte order: Qt's ARGB32_Premultiplied on this machine.
    const QImage pixels = image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    for (int row = 0; row < pixels.height(); ++row)
        std::memcpy(b->data + static_cast<size_t>(row) * pixels.width() * 4, pixels.constScanLine(row),
                    static_cast<size_t>(pixels.width()) * 4);
    const QSize size = surfaceSize();
    layerShell::setSize(layer, static_cast<uint32_t>(size.width()), static_cast<uint32_t>(size.height()));
    if (wl_proxy_get_version(reinterpret_cast<wl_proxy*>(surface)) >=
        WL_SURFACE_SET_BUFFER_SCALE_SINCE_VERSION)
        wl_surface_set_buffer_scale(surface, static_cast<int32_t>(image.devicePixelRatio()));
    wl_surface_attach(surface, b->buffer, 0, 0);
    wl_surface_damage(surface, 0, 0, size.width(), size.height());
    wl_surface_commit(surface);
    b->busy = true;
    flush();
}

std::unique_ptr<LayerShellBar> LayerShellBar::create() {
    auto state = std::make_unique<State>();
    state->display = wl_display_connect(nullptr);
    if (!state->display) return nullptr;
    state->registry = wl_display_get_registry(state->display);
    wl_registry_add_listener(state->registry, &registryListener, state.get());
    // The globals, then what the seat and the outputs say about themselves.
    if (wl_display_roundtrip(state->display) < 0 || !state->compositor || !state->shm || !state->shell)
        return nullptr;
    wl_display_roundtrip(state->display);
    state->watchDrops();
    return std::unique_ptr<LayerShellBar>(new LayerShellBar(std::move(state)));
}

LayerShellBar::LayerShellBar(std::unique_ptr<State> state) : state_(std::move(state)) {
    state_->owner = this;
    State* s = state_.get();
    s->notifier = std::make_unique<QSocketNotifier>(wl_display_get_fd(s->display), QSocketNotifier::Read);
    connect(s->notifier.get(), &QSocketNotifier::activated, this, [s] {
        // A compositor that went away leaves the bar to the panel item.
        if (wl_display_dispatch(s->display) < 0) s->notifier->setEnabled(false);
    });
}

LayerShellBar::~LayerShellBar() = default;

void LayerShellBar::show(const QImage& image) {
    State& s = *state_;
    if (image == s.image && s.surface) return;
    s.image = image;
    if (image.isNull()) return;
    if (!s.surface) {
        s.createSurface();
        return;
    }
    s.margin = std::min(s.margin, s.widest());
    s.draw();
}

void LayerShellBar::hide() {
    state_->destroySurface();
}

void LayerShellBar::setMargin(int right) {
    state_->margin = std::clamp(right, 0, state_->widest());
    state_->applyMargin();
}

int LayerShellBar::scale() const {
    return state_->scale();
}

int LayerShellBar::margin() const {
    return state_->margin;
}

QString LayerShellBar::outputName() const {
    return state_->on ? state_->on->name : QString();
}

}  // namespace velquin
