// One registered instance per class, made by its owner (Singleton) or on
// first use (AutoCreateSingleton).
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "platform/assert.h"

namespace corvid {

namespace detail {
// The name of T as the compiler spells it in function signatures.
template <typename T>
constexpr std::string_view TypeName()
{
    // gcc: "... TypeName() [with T = Name; ...]", clang: "... TypeName() [T = Name]".
    constexpr std::string_view pretty = __PRETTY_FUNCTION__;
    constexpr std::string_view gcc_marker = "[with T = ";
    constexpr std::string_view clang_marker = "[T = ";
    constexpr auto begin = pretty.find(gcc_marker) != std::string_view::npos
                               ? pretty.find(gcc_marker) + gcc_marker.size()
                               : pretty.find(clang_marker) + clang_marker.size();
    constexpr auto end = pretty.find_first_of(";]", begin);
    return pretty.substr(begin, end - begin);
}

// "<prefix> [with T = <type_name>]", the signature in a report.
std::string SingletonSignature(std::string_view prefix, std::string_view type_name);
} // namespace detail

// Base class that gives T one process-wide instance. The owner constructs
// the instance explicitly; GetInstance() before that, a second instance, or
// destroying an instance that is not the registered one are fatal.
template <typename T>
class Singleton {
public:
    Singleton()
    {
        CORVID_ASSERT(sm_instance == nullptr, "lib/platform/singleton", 51,
                      detail::SingletonSignature("corvid::Singleton<T>::Singleton()",
                                                 detail::TypeName<T>())
                          .c_str(),
                      "sm_instance == __null");
        sm_instance = this;
    }

    ~Singleton()
    {
        CORVID_ASSERT(sm_instance == this, "lib/platform/singleton", 58,
                      detail::SingletonSignature("corvid::Singleton<T>::~Singleton()",
                                                 detail::TypeName<T>())
                          .c_str(),
                      "sm_instance == this");
        sm_instance = nullptr;
    }

    Singleton(const Singleton&) = delete;
    Singleton& operator=(const Singleton&) = delete;

    static T* GetInstance()
    {
        Singleton* p = sm_instance;
        const auto address = reinterpret_cast<std::uintptr_t>(p);
        CORVID_ASSERT_DETAIL(address > 4095 && address % 8 == 0, "lib/platform/singleton", 71,
                             detail::SingletonSignature("static T* corvid::Singleton<T>::GetInstance()",
                                                        detail::TypeName<T>())
                                 .c_str(),
                             "Invalid pointer", "Pointer=%p\n", static_cast<void*>(p));
        return static_cast<T*>(p);
    }

protected:
    // The registered instance, kept as this base: converted to T only once
    // the object is whole (in GetInstance), never while T is being built or
    // torn down.
    static inline Singleton* sm_instance = nullptr;
};

// Base class that gives T one process-wide instance created on first use:
// the first GetInstance() constructs it (once, also when threads race), and
// the holder's owning pointer deletes it at process exit. T may keep its
// constructor private and befriend this class.
template <typename T>
class AutoCreateSingleton {
public:
    AutoCreateSingleton(const AutoCreateSingleton&) = delete;
    AutoCreateSingleton& operator=(const AutoCreateSingleton&) = delete;

    static T* GetInstance()
    {
        static const std::unique_ptr<T> instance(new T);
        return instance.get();
    }

protected:
    AutoCreateSingleton() = default;
    ~AutoCreateSingleton() = default;
};

} // namespace corvid
