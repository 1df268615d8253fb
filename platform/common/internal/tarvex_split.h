// Walking a text piece by piece between separators (a search path's
// directories, a reply's lines, a path's components).
#ifndef TARVEX_SPLIT_H
#define TARVEX_SPLIT_H

#include <string_view>

namespace tarvex {

// Calls `piece` with each piece of `text` between `separator`s, in order,
// empty ones included: "a::b" gives "a", "", "b", and "" gives one "".
template <class Piece>
void for_each_piece(std::string_view text, char separator, Piece &&piece)
{
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(separator, start);
        if (end == std::string_view::npos)
            end = text.size();
        piece(text.substr(start, end - start));
        start = end + 1;
    }
}

} // namespace tarvex

#endif
