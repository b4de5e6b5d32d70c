// vxtool's context: the live player, where a command may put a saved file
// in place of a live path ("/proc/boardid") or an image in place of a
// partition, so that the library's own code reads a returned player's data
// exactly as it reads a live one.
#pragma once

#include <map>
#include <string>

#include "hardware/context.h"

namespace vxtool {

class ToolContext final : public LiveContext {
public:
    // The instance main constructed.
    static ToolContext& Get() { return static_cast<ToolContext&>(*Context::GetInstance()); }

    void UseFile(const std::string& live_path, const std::string& file) { m_files[live_path] = file; }
    void UsePartition(const std::string& name, NandAccess::Pointer nand)
    {
        m_partitions[name] = std::move(nand);
    }

    std::string Path(std::string_view live_path) const override
    {
        const auto file = m_files.find(std::string(live_path));
        return file != m_files.end() ? file->second : LiveContext::Path(live_path);
    }
    NandAccess::Pointer OpenPartition(const std::string& name) override
    {
        const auto image = m_partitions.find(name);
        return image != m_partitions.end() ? image->second : LiveContext::OpenPartition(name);
    }
    NandAccess::Pointer OpenWholeDevice(const std::string& name) override
    {
        const auto image = m_partitions.find(name);
        return image != m_partitions.end() ? image->second : LiveContext::OpenWholeDevice(name);
    }

private:
    std::map<std::string, std::string> m_files;
    std::map<std::string, NandAccess::Pointer> m_partitions;
};

} // namespace vxtool
