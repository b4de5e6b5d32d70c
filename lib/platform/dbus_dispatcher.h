// The process-wide D-Bus dispatcher of the D-Bus binding, and its optional
// thread. The library holds one static instance, constructed before main
// without a thread; a program that serves or calls D-Bus from a thread of
// its own constructs another with true.
#pragma once

class EnsureDBusDispatcher {
public:
    // The first instance initialises the binding's threading, creates the
    // dispatcher and installs it as DBus::default_dispatcher; with
    // start_thread, a thread ("DbusDispatcher", process signals blocked) runs
    // its loop, if none does yet.
    explicit EnsureDBusDispatcher(bool start_thread);
    // The last instance stops the loop, joins the thread within 10 seconds
    // (else "~EnsureDBusDispatcher thread failed to exit in a timely
    // manner.\n" and a fatal assertion) and destroys the dispatcher.
    ~EnsureDBusDispatcher();

    EnsureDBusDispatcher(const EnsureDBusDispatcher&) = delete;
    EnsureDBusDispatcher& operator=(const EnsureDBusDispatcher&) = delete;
};
