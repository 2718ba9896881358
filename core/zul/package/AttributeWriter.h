#pragma once

#include <functional>
#include <string>

namespace Core::ZUL {

/// Attaches an extended attribute to a file that is open for writing.
/// @return 0, or the errno value that says why not
using AttributeWriter = std::function<int(int file, const std::string& name, const std::string& value)>;

/// The writer that extraction uses unless it is given another: fsetxattr(2).
[[nodiscard]] int attachAttribute(int file, const std::string& name, const std::string& value);

} // namespace Core::ZUL
