/* The markers that end a listing that would never end. */
#include <gtest/gtest.h>

#include <string>

#include "listing_markers.h"
#include "tarvex_box_common.h"

/* A listing takes new markers up to the page budget: far too many pages
 * for a test against the emulator, which pins the other end of a listing
 * that would never end, a marker seen twice (box_session_listing_test). */
TEST(BoxListingMarkers, ThePageBudgetEndsTheListing)
{
    auto message = [](tarvex_result_t result) {
        tarvex_object_t *error = tarvex_error_get(result);
        std::string text = error ? tarvex_error_get_message(error) : "";
        tarvex_object_free(error);
        return text;
    };
    tarvex_box_listing_markers markers;
    EXPECT_EQ(markers.take("", "5"), TARVEX_SUCCESS);
    for (size_t page = 1; page < tarvex_box_listing_markers::page_budget; page++)
        ASSERT_EQ(markers.take(std::to_string(page).c_str(), "5"), TARVEX_SUCCESS) << page;
    EXPECT_EQ(message(markers.take("one more", "5")),
              "The listing of Box folder 5 was stopped after 20000 pages.");
}
