// The root that every live path of the program is joined to: "/" on the
// player, a scratch directory holding proc/, sys/, etc/ ... in tests.
#pragma once

#include <string>
#include <string_view>

namespace corvid {

class RootDir {
public:
    explicit RootDir(std::string root = "/") : m_root(std::move(root))
    {
        while (m_root.size() > 1 && m_root.back() == '/')
            m_root.pop_back();
    }

    // The live path (absolute, "/proc/mtd") below this root. Under "/" the
    // path is returned unchanged, so messages name the real path.
    std::string Path(std::string_view live_path) const
    {
        if (m_root == "/" || m_root.empty())
            return std::string(live_path);
        return m_root + std::string(live_path);
    }

    const std::string& Get() const noexcept { return m_root; }

private:
    std::string m_root;
};

} // namespace corvid
