#include "platform/singleton.h"


namespace corvid::detail {

std::string SingletonSignature(std::string_view prefix, std::string_view type_name)
{
    std::string signature(prefix);
    signature += " [with T = ";
    signature += type_name;
    signature += "]";
    return signature;
}

} // namespace corvid::detail
