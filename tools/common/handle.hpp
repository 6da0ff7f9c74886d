// Owns a handle of a C library: Handle<T, free_function> is a std::unique_ptr that releases by free_function. It adds
// no state, and nothing is released twice or, when it is null, at all.
#pragma once

#include <memory>

namespace zqu::tools {

template <auto release>
struct Release {
    template <typename T>
    void operator()(T* handle) const {
        release(handle);
    }
};

template <typename T, auto release>
using Handle = std::unique_ptr<T, Release<release>>;

}  // namespace zqu::tools
