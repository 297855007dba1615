#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace pelkit {

using Bytes = std::vector<std::uint8_t>;

inline Bytes bytesOf(std::string_view text) {
    return Bytes(text.begin(), text.end());
}
inline std::string_view textOf(const Bytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

} // namespace pelkit
