#include "platform/singleton.h"

#include <cstdlib>

namespace corvid::detail {

std::string SingletonSignature(std::string_view prefix, std::string_view type_name)
{
    std::string signature(prefix);
    signature += " [with T = ";
    signature += type_name;
    signature += "]";
    return signature;
}

void SingletonInvalidPointer(const void* pointer, std::string_view type_name) noexcept
{
    const std::string function =
        SingletonSignature("static T* corvid::Singleton<T>::GetInstance()", type_name);
    AssertionReportFormatted("lib/platform/singleton", 71, function.c_str(), "Invalid pointer",
                             "Pointer=%p\n", pointer);
    std::abort();
}

} // namespace corvid::detail
