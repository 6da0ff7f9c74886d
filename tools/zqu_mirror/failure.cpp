#include "failure.hpp"

#include <stdexcept>

#include "text.hpp"

namespace zqu::mirror_tool {

void fail(const std::string& text) {
    throw std::runtime_error(text);
}

void say(const std::string& text) {
    tools::print(tools::printable(text) + "\n");
}

}  // namespace zqu::mirror_tool
