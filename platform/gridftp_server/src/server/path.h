// Path normalisation: the plug-in only ever sees absolute paths in which
// "." and ".." are resolved lexically (never above "/") and duplicate
// slashes are collapsed.
#pragma once

#include <string>
#include <string_view>

namespace tarvex_server {

// `arg` taken relative to `cwd` (itself absolute and normal); "~" at the
// start stands for `home`.  An empty `arg` gives `cwd`.
std::string resolve_path(std::string_view cwd, std::string_view home,
                         std::string_view arg);

// The last component of a normal path ("/" for the root).
std::string base_name(std::string_view path);

} // namespace tarvex_server
