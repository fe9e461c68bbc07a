#include "ServerWatch.h"

namespace velquin::pulse {

namespace {

constexpr std::chrono::milliseconds kRetryInterval{1000};

void unrefIfAny(pa_operation* op) {
    if (op) pa_operation_unref(op);  // null when the context is no longer READY
}

}  // namespace

ServerWatch::ServerWatch(pa_threaded_mainloop* loop, ContextPtr& context, StreamPtr& stream,
                         AudioSource& owner, Records records)
    : loop_(loop),
      context_(context),
      stream_(stream),
      owner_(owner),
      records_(records),
      retryTimer_(loop, [this] { retry(); }) {}

void ServerWatch::attach() {
    pa_context_set_state_callback(context_.get(), stateCallback, this);
}

void ServerWatch::stateCallback(pa_context* context, void* userdata) {
    auto* self = static_cast<ServerWatch*>(userdata);
    const pa_context_state_t state = pa_context_get_state(context);
    if (state == PA_CONTEXT_READY && self->lost_) {
        // A fresh connection after the server went away: restart as soon as it has what the source needs.
        pa_context_set_subscribe_callback(context, subscribeCallback, self);
        unrefIfAny(pa_context_subscribe(context, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr));
        unrefIfAny(pa_context_get_server_info(context, serverInfoCallback, self));
    } else if (!PA_CONTEXT_IS_GOOD(state)) {
        self->connectionLost();
    }
}

void ServerWatch::connectionLost() {
    // A failed context cannot be reused, and it must not be freed from inside its own callback:
    // the retry timer replaces it.
    const bool first = !lost_;
    lost_ = true;
    retryTimer_.arm(kRetryInterval);
    if (first && owner_.onServerLost) owner_.onServerLost();
}

void ServerWatch::retry() {
    stream_.reset();
    context_.reset();
    context_ = newContext(loop_);
    if (context_) {
        attach();
        if (pa_context_connect(context_.get(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0) return;
        context_.reset();
    }
    retryTimer_.arm(kRetryInterval);
}

void ServerWatch::subscribeCallback(pa_context* context, pa_subscription_event_type_t event, uint32_t,
                                    void* userdata) {
    if ((event & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) != PA_SUBSCRIPTION_EVENT_SERVER) return;
    unrefIfAny(pa_context_get_server_info(context, serverInfoCallback, userdata));
}

void ServerWatch::serverInfoCallback(pa_context*, const pa_server_info* info, void* userdata) {
    auto* self = static_cast<ServerWatch*>(userdata);
    if (!info || self->restartAsked_) return;
    const char* device =
        self->records_ == Records::defaultSink ? info->default_sink_name : info->default_source_name;
    if (!device || !*device) return;  // not yet: the server announces it when there is one
    // Once is enough: the owner's restart replaces this whole connection.
    self->restartAsked_ = true;
    if (self->owner_.onNeedsRestart) self->owner_.onNeedsRestart();
}

}  // namespace velquin::pulse
