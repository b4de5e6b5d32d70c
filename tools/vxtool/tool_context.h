// vxtool's context: the live player, where a command may put a saved file
// in place of a live path ("/proc/boardid"), a directory in place of a live
// tree ("/sys"), an image in place of a partition or an address in place of
// a network interface's, so that the library's own code reads a returned
// player's data exactly as it reads a live one.
#pragma once

#include <map>
#include <string>

#include "hardware/context.h"
#include "hardware/nand_access_linux.h"

namespace vxtool {

class ToolContext final : public LiveContext {
public:
    // The instance main constructed.
    static ToolContext& Get() { return static_cast<ToolContext&>(*Context::GetInstance()); }

    void UseFile(const std::string& live_path, const std::string& file) { m_files[live_path] = file; }
    void UseTree(const std::string& live_dir, const std::string& dir) { m_trees[live_dir] = dir; }
    void UseInterfaceAddress(const std::string& name, const corvid::HardwareAddress& mac)
    {
        m_addresses[name] = mac;
    }
    void UsePartition(const std::string& name, NandAccess::Pointer nand)
    {
        m_partitions[name] = std::move(nand);
    }

    std::string Path(std::string_view live_path) const override
    {
        const auto file = m_files.find(std::string(live_path));
        if (file != m_files.end())
            return file->second;
        for (const auto& [live_dir, dir] : m_trees) {
            if (live_path.starts_with(live_dir) &&
                (live_path.size() == live_dir.size() || live_path[live_dir.size()] == '/'))
                return dir + std::string(live_path.substr(live_dir.size()));
        }
        return LiveContext::Path(live_path);
    }
    corvid::HardwareAddress GetInterfaceAddress(const std::string& name) override
    {
        const auto mac = m_addresses.find(name);
        return mac != m_addresses.end() ? mac->second : LiveContext::GetInterfaceAddress(name);
    }
    NandAccess::Pointer OpenPartition(const std::string& name) override
    {
        const auto image = m_partitions.find(name);
        return image != m_partitions.end() ? image->second : NamingMtdTable([&] { return LiveContext::OpenPartition(name); });
    }
    NandAccess::Pointer OpenWholeDevice(const std::string& name) override
    {
        const auto image = m_partitions.find(name);
        return image != m_partitions.end() ? image->second
                                           : NamingMtdTable([&] { return LiveContext::OpenWholeDevice(name); });
    }

private:
    // The player reports an unreadable /proc/mtd without its path (the only
    // errno failure of the lookup without one); an engineer is told which
    // file it was.
    template <typename Open>
    NandAccess::Pointer NamingMtdTable(Open open)
    {
        try {
            return open();
        } catch (const corvid::ErrnoException& e) {
            if (!e.GetContext().empty())
                throw;
            throw corvid::ErrnoException(e.GetErrno(), Path(MTD_TABLE_PATH));
        }
    }

    std::map<std::string, std::string> m_files;
    std::map<std::string, std::string> m_trees;
    std::map<std::string, corvid::HardwareAddress> m_addresses;
    std::map<std::string, NandAccess::Pointer> m_partitions;
};

} // namespace vxtool
