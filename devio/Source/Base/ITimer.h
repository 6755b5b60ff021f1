#pragma once

namespace devio {

// A one-shot timer with a fixed id. Any thread may arm or stop it, but not
// two at once on the same timer.
class ITimer {
public:
    // The interval ran out. `id` tells apart the timers of one owner.
    class TimerEvent {
    public:
        using Interface = ITimer;
        struct Names {
            const char* onTimerEvent;
        };
        virtual void onTimerEvent(int /*id*/) {}

    protected:
        ~TimerEvent() = default;
    };

    virtual ~ITimer() = default;
    // Arms for `milliseconds` unless an interval is running and still in its
    // first half; then the call changes nothing.
    virtual bool reset(int milliseconds) = 0;
    // Cancels any running interval and arms for `milliseconds`.
    virtual bool start(int milliseconds) = 0;
    // Cancels the running interval and waits for its thread to end.
    virtual bool stop() = 0;
};

namespace event_names {
inline constexpr ITimer::TimerEvent::Names TimerTimerEvent{"Timer::TimerEvent::onTimerEvent"};
}  // namespace event_names

}  // namespace devio
