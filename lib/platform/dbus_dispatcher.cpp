#include "platform/dbus_dispatcher.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <memory>
#include <mutex>

#include <boost/chrono.hpp>
#include <boost/thread/thread.hpp>
#include <dbus-c++/dbus.h>

#include "platform/assert.h"
#include "platform/async_signals.h"
#include "platform/trace.h"

namespace {

// The state every instance shares, guarded by its mutex.
struct Shared {
    std::mutex mutex;
    std::uint64_t count = 0;
    std::unique_ptr<DBus::BusDispatcher> dispatcher;
    std::unique_ptr<boost::thread> thread;
};

Shared& State()
{
    static Shared* const state = new Shared; // outlives every static instance
    return *state;
}

// Stops the dispatcher's loop. The binding's leave() writes a wake-up word
// to the loop's pipe and then closes both ends; when the write fails it
// throws instead and leaves them open. Called from a destructor, the
// exception would end the process (SIGABRT at exit), so a failed wake-up
// closes the pipe itself: a loop that runs on a thread then stops only at
// the join's deadline.
void Leave(DBus::BusDispatcher& dispatcher) noexcept
{
    try {
        dispatcher.leave();
    } catch (...) {
        ::close(dispatcher._fdunlock[1]);
        ::close(dispatcher._fdunlock[0]);
    }
}

bool RunDispatcher(DBus::BusDispatcher* dispatcher)
{
    prctl(PR_SET_NAME, "DbusDispatcher");
    corvid::ConfigureSignals(SIG_BLOCK);
    dispatcher->enter();
    return true;
}

} // namespace

EnsureDBusDispatcher::EnsureDBusDispatcher(bool start_thread)
{
    Shared& state = State();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (state.count++ == 0) {
        DBus::_init_threading();
        state.dispatcher = std::make_unique<DBus::BusDispatcher>();
        DBus::default_dispatcher = state.dispatcher.get();
    }
    if (!state.thread && start_thread)
        state.thread = std::make_unique<boost::thread>(&RunDispatcher, state.dispatcher.get());
}

EnsureDBusDispatcher::~EnsureDBusDispatcher()
{
    Shared& state = State();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (--state.count != 0)
        return;
    Leave(*state.dispatcher);
    if (state.thread) {
        // Joining from the dispatcher thread itself is refused by the thread
        // library, which ends the process.
        const auto deadline = boost::chrono::steady_clock::now() + boost::chrono::nanoseconds(10000000000);
        if (!state.thread->try_join_until(deadline)) {
            corvid::PrintGuarded("~EnsureDBusDispatcher thread failed to exit in a timely manner.\n");
            CORVID_ASSERT(false, "lib/platform/dbus_dispatcher.cpp", 84,
                          "EnsureDBusDispatcher::~EnsureDBusDispatcher()", "false");
        }
        state.thread.reset();
    }
    if (DBus::default_dispatcher == state.dispatcher.get())
        DBus::default_dispatcher = nullptr;
    state.dispatcher.reset();
}
