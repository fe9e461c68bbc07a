#pragma once
// What both PulseAudio sources do when the sound server goes away: the owner is told once, a fresh
// connection is tried every second, and once one answers and the server has what the source records
// (a default sink, a default input), the owner is asked once to restart the source.
//
// Threads: made, attached and destroyed with the loop's lock held; its callbacks run on the loop's thread.

#include "AudioSource.h"
#include "PulseConnection.h"

namespace velquin::pulse {

class ServerWatch {
  public:
    enum class Records { defaultSink, defaultSource };

    // `context` and `stream` are the source's own: a retry drops the stream and replaces the context.
    // The owner's onServerLost and onNeedsRestart are called on the loop's thread.
    ServerWatch(pa_threaded_mainloop* loop, ContextPtr& context, StreamPtr& stream, AudioSource& owner,
                Records records);
    ServerWatch(const ServerWatch&) = delete;
    ServerWatch& operator=(const ServerWatch&) = delete;

    // Watches the source's current context: takes over its state callback.
    void attach();
    bool lost() const { return lost_; }

  private:
    void connectionLost();
    void retry();
    static void stateCallback(pa_context* context, void* userdata);
    static void subscribeCallback(pa_context* context, pa_subscription_event_type_t event, uint32_t index,
                                  void* userdata);
    static void serverInfoCallback(pa_context* context, const pa_server_info* info, void* userdata);

    pa_threaded_mainloop* loop_;
    ContextPtr& context_;
    StreamPtr& stream_;
    AudioSource& owner_;
    Records records_;
    Timer retryTimer_;
    bool lost_ = false;
    bool restartAsked_ = false;
};

}  // namespace velquin::pulse
