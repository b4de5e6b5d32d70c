// The library's static D-Bus dispatcher owner, constructed before main
// without a thread. Linked into every program as an object, since nothing
// refers to it by name.
#include "platform/dbus_dispatcher.h"

namespace {

const EnsureDBusDispatcher g_dispatcher(false);

} // namespace
