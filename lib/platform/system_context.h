// The context of a run as the platform library sees it: every live path
// joined to one root, and the clock. The hardware library's Context extends
// it with the devices; a program constructs exactly one (see
// docs/design.md, "Testing seams").
#pragma once

#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/root_dir.h"
#include "platform/singleton.h"

namespace corvid {

class SystemContext : public Singleton<SystemContext> {
public:
    virtual ~SystemContext() = default;

    // A live path (absolute, as on the player) as this context reaches it.
    virtual std::string Path(std::string_view live_path) const { return m_root.Path(live_path); }

    virtual Clock& GetClock() = 0;

protected:
    explicit SystemContext(RootDir root) : m_root(std::move(root)) {}

private:
    RootDir m_root;
};

} // namespace corvid
