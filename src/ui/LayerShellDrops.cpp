// Files dragged onto the layer-shell bar from Wayland programs: offers of a text/uri-list, taken as a copy.

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <wayland-client.h>

#include <QTimer>
#include <cstring>

#include "ui/LayerShellState.h"

namespace velquin {

namespace {

using State = LayerShellBar::State;

constexpr const char* uriList = "text/uri-list";

void offerMime(void* data, wl_data_offer*, const char* mime) {
    if (std::strcmp(mime, uriList) == 0) static_cast<State*>(data)->offerHasUris = true;
}
void offerSourceActions(void*, wl_data_offer*, uint32_t) {}
void offerAction(void*, wl_data_offer*, uint32_t) {}
const wl_data_offer_listener offerListener = {offerMime, offerSourceActions, offerAction};

void dataOffer(void* data, wl_data_device*, wl_data_offer* offer) {
    auto* s = static_cast<State*>(data);
    s->dropOffer();
    s->offer = offer;
    s->offerHasUris = false;
    wl_data_offer_add_listener(offer, &offerListener, s);
}
void dataEnter(void* data, wl_data_device*, uint32_t serial, wl_surface* surface, wl_fixed_t, wl_fixed_t,
               wl_data_offer* offer) {
    auto* s = static_cast<State*>(data);
    const bool ours = surface == s->surface && offer == s->offer && s->offerHasUris;
    if (!offer) return;
    // Files are taken as a copy; anything else is refused.
    wl_data_offer_accept(offer, serial, ours ? uriList : nullptr);
    if (wl_data_offer_get_version(offer) >= 3) {
        const uint32_t copy = ours ? WL_DATA_DEVICE_MANAGER_DND_ACTION_COPY : 0;
        wl_data_offer_set_actions(offer, copy, copy);
    }
    s->flush();
}
void dataLeave(void*, wl_data_device*) {}
void dataMotion(void*, wl_data_device*, uint32_t, wl_fixed_t, wl_fixed_t) {}
void dataDrop(void* data, wl_data_device*) {
    auto* s = static_cast<State*>(data);
    if (!s->offer || !s->offerHasUris) return;
    const QList<QUrl> urls = s->receiveUris();
    s->dropOffer();
    LayerShellBar* owner = s->owner;
    if (!urls.isEmpty() && owner->onDrop) {
        QTimer::singleShot(0, owner, [owner, urls] {
            if (owner->onDrop) owner->onDrop(urls);
        });
    }
}
void dataSelection(void* data, wl_data_device*, wl_data_offer* offer) {
    // The clipboard is none of the bar's business.
    auto* s = static_cast<State*>(data);
    if (offer && offer == s->offer) s->offer = nullptr;
    if (offer) wl_data_offer_destroy(offer);
}
const wl_data_device_listener dataDeviceListener = {dataOffer,  dataEnter, dataLeave,
                                                    dataMotion, dataDrop,  dataSelection};

}  // namespace

void LayerShellBar::State::watchDrops() {
    if (!dataManager || !seat || dataDevice) return;
    dataDevice = wl_data_device_manager_get_data_device(dataManager, seat);
    wl_data_device_add_listener(dataDevice, &dataDeviceListener, this);
}

void LayerShellBar::State::dropOffer() {
    if (offer) wl_data_offer_destroy(offer);
    offer = nullptr;
    offerHasUris = false;
}

QList<QUrl> LayerShellBar::State::receiveUris() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return {};
    wl_data_offer_receive(offer, uriList, fds[1]);
    close(fds[1]);
    flush();
    // The dragging program writes the list and closes its end; a list of paths is short, and a program
    // that never writes is given up on after two seconds.
    QByteArray text;
    pollfd p{fds[0], POLLIN, 0};
    char chunk[4096];
    while (poll(&p, 1, 2000) > 0) {
        const ssize_t n = read(fds[0], chunk, sizeof chunk);
        if (n <= 0) break;
        text.append(chunk, n);
    }
    close(fds[0]);
    if (wl_data_offer_get_version(offer) >= 3) wl_data_offer_finish(offer);
    QList<QUrl> urls;
    for (const QByteArray& line : text.split('\n')) {
        const QByteArray trimmed = line.trimmed();
        if (!trimmed.isEmpty() && !trimmed.startsWith('#')) urls << QUrl::fromEncoded(trimmed);
    }
    return urls;
}

}  // namespace velquin
