// A private system bus for the registry's tests: a dbus-daemon with the
// system bus's own configuration plus the registry's policy file, and the
// real registry service on it. Clients reach it as the system bus: the
// process's DBUS_SYSTEM_BUS_ADDRESS names it, and programs started later
// inherit that.
#pragma once

#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include <boost/core/demangle.hpp>
#include <dbus-c++/error.h>

#include "support/programs.h"

namespace vxtest {

// Sends the signal (0: none) and reaps the process; returns its wait status.
inline int Reap(pid_t pid, int signal = 0)
{
    int status = -1;
    if (pid > 0 && kill(pid, signal) == 0)
        waitpid(pid, &status, 0);
    return status;
}

// Waits up to 20 s (sanitizer builds start slowly) for the log to show text.
inline void WaitFor(pid_t pid, const std::string& log, const std::string& text)
{
    for (int i = 0; ReadFile(log).find(text) == std::string::npos; ++i) {
        if (i == 2000 || waitpid(pid, nullptr, WNOHANG) != 0)
            throw std::runtime_error("did not start: " + ReadFile(log));
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// "<type>: <what>" of the call's exception, a D-Bus error by its name; "none".
inline std::string Failure(const std::function<void()>& call)
{
    try {
        call();
    } catch (const DBus::Error& e) {
        return std::string(e.name()) + ": " + e.message();
    } catch (const std::exception& e) {
        return boost::core::demangle(typeid(e).name()) + ": " + e.what();
    }
    return "none";
}

class RegistryBus {
public:
    // The process's bus, started on first use and kept to the end: libdbus
    // reads the bus address once per process.
    static RegistryBus& Get()
    {
        static RegistryBus bus;
        return bus;
    }

    // Starts vx-registryd --verbose on the store, after stopping the one
    // that runs, and waits until it serves.
    void StartService(const std::string& store)
    {
        StopService();
        m_service = Start(Built(VX_REGISTRYD_PATH, {"--store", store, "--verbose"}), "/dev/null", m_dir.Path() + "/service.log");
        WaitFor(m_service, m_dir.Path() + "/service.log", " serving ");
    }
    int StopService(int signal = SIGTERM) { return Reap(std::exchange(m_service, -1), signal); }
    // The "serving" line, then one line per request taken.
    std::string ServiceLog() const { return ReadFile(m_dir.Path() + "/service.log"); }

private:
    RegistryBus()
    {
        chmod(m_dir.Path().c_str(), 0755); // for the tests' other users
        const std::string address = "unix:path=" + m_dir.Path() + "/bus", log = m_dir.Path() + "/bus.log";
        // The daemon stays the test's user: changing it would cancel its death with the test program.
        const std::string config = m_dir.WriteFile(
            "bus.conf", "<busconfig><include>/usr/share/dbus-1/system.conf</include><user>" +
                            std::string(getpwuid(getuid())->pw_name) +
                            "</user><include>" VX_REGISTRY_POLICY "</include></busconfig>\n");
        WaitFor(Start({"/usr/bin/dbus-daemon", "--nofork", "--nopidfile", "--print-address",
                       "--config-file=" + config, "--address=" + address},
                      "/dev/null", log),
                log, address);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    }

    TempDir m_dir;
    pid_t m_service = -1;
};

} // namespace vxtest
