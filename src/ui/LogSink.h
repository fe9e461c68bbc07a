#pragma once
// Where the interface's diagnostic lines go. The owner passes the application's log writer; an empty
// sink drops the lines, which keeps these classes usable on their own in tests and tools.

#include <functional>
#include <string_view>

namespace velquin {

using LogSink = std::function<void(std::string_view message)>;

}  // namespace velquin
