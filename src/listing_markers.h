/*
 * What keeps one folder listing from going on for ever: the markers Box
 * has handed out in it so far.
 */
#ifndef TARVEX_BOX_LISTING_MARKERS_H
#define TARVEX_BOX_LISTING_MARKERS_H

#include <cstddef>
#include <string>
#include <unordered_set>

#include "tarvex_box_common.h"

/*
 * A listing ends with an error when Box hands back a marker it gave earlier
 * in the same listing (its pages would repeat for ever, or an empty page
 * with the marker "" would be asked for again and again), or after more
 * pages than any real folder has.  Box keeps folders far below a million
 * items; 20,000 pages of 100 (the smallest a policy may ask for) is two
 * million.
 */
class tarvex_box_listing_markers {
public:
    static constexpr size_t page_budget = 20000;

    /* Takes the marker of the next page to ask for. */
    tarvex_result_t take(const char *marker, const char *folder_id);

private:
    std::unordered_set<std::string> seen_;
};

#endif
