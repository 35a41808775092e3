#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace kel {

/// The MQTT library's one receive thread, kept running from the first connect to the library's
/// stop. By itself the MQTT library ends it whenever a session ends and no other is left, also
/// under a connect that has just begun, which then waits for nobody; and where it begins late on a
/// busy machine, the next connect begins a second one, and the two free each other's memory. Here
/// a connection of the process to itself, over loopback, is the one that is always left.
/// Threads: any.
class ReceiveThread {
public:
    /// Asked a hundred times a second; true ends a wait.
    using GiveUp = std::function<bool()>;

    /// To be called before a handle is made: the MQTT library shuts down with its last handle, also
    /// while another thread just makes one, and this leaves one that stays.
    static void prepare();

    /// Begins it unless it runs; the caller has the ConnectTurn. Takes a few 100 ms, and as long as
    /// a thread needs to begin, a minute at the longest.
    /// @return false, with the reason logged, if it does not run.
    static bool ensure(const GiveUp& giveUp);

    /// Ends it, if no other connection needs it, until the next ensure().
    static void stop();

    /// Has the thread look at its connections a thousand times a second, for a second at the
    /// longest. It would notice a new one, and that this is established, after 100 ms each.
    class Awake {
    public:
        Awake();
        ~Awake();
        Awake(const Awake&) = delete;
        Awake& operator=(const Awake&) = delete;

    private:
        void nudge();

        std::mutex _mutex;
        std::condition_variable _ended;
        bool _end = false;  // guarded by _mutex
        std::thread _thread;
    };
};

}  // namespace kel
