// The engine's verdicts on a screen's elements: pure functions of the screen's
// size and the element, which the engine logs from and the screens-file
// checker reports from.
#include <gtest/gtest.h>

#include <climits>

#include "GuiLimits.h"

using namespace dravik::lcmgui;

namespace {

GuiImgConf imageConf(AnimType animation, uint32_t duration, uint16_t count) {
    GuiImgConf conf;
    conf.animation = animation;
    conf.duration = duration;
    conf.count = count;
    return conf;
}

}  // namespace

TEST(Verdicts, an_element_exactly_as_large_as_the_room_right_and_below_fits) {
    const ElementPlace place = placementOf(320, 240, 20, 40, 300, 200, kAlignLeft, kAlignTop);
    EXPECT_TRUE(place.fits);
    EXPECT_EQ(place.x, 20U);
    EXPECT_EQ(place.y, 40U);
}

TEST(Verdicts, one_column_or_row_too_many_is_beyond_the_right_edge_or_the_bottom) {
    const ElementPlace right = placementOf(320, 240, 20, 40, 301, 200, kAlignLeft, kAlignTop);
    EXPECT_FALSE(right.fits);
    EXPECT_TRUE(right.beyondRight);
    const ElementPlace bottom = placementOf(320, 240, 20, 40, 300, 201, kAlignLeft, kAlignTop);
    EXPECT_FALSE(bottom.fits);
    EXPECT_FALSE(bottom.beyondRight);
}

TEST(Verdicts, a_position_whose_sum_would_wrap_is_off_the_screen) {
    EXPECT_FALSE(placementOf(320, 240, UINT_MAX, 0, 2, 2, kAlignLeft, kAlignTop).fits);
    EXPECT_FALSE(placementOf(320, 240, 0, UINT_MAX, 2, 2, kAlignLeft, kAlignTop).fits);
}

TEST(Verdicts, alignment_moves_a_fitting_element_counting_the_offset_half_or_not_at_all) {
    const ElementPlace centre = placementOf(320, 240, 20, 40, 100, 50, kAlignCenter, kAlignMiddle);
    ASSERT_TRUE(centre.fits);
    EXPECT_EQ(centre.x, (320U - 100 + 20) / 2);
    EXPECT_EQ(centre.y, (40U - 50 + 240) / 2);
    const ElementPlace far = placementOf(320, 240, 20, 40, 100, 50, kAlignRight, kAlignBottom);
    ASSERT_TRUE(far.fits);
    EXPECT_EQ(far.x, 220U);
    EXPECT_EQ(far.y, 190U);
}

TEST(Verdicts, a_slideshow_shows_one_slide_and_a_progress_bar_one_half) {
    unsigned w = 0;
    unsigned h = 0;
    usedSizeOf(301, 50, kAnimSlideshow, 4, w, h);
    EXPECT_EQ(w, 75U);  // the columns left over are never shown
    EXPECT_EQ(h, 50U);
    usedSizeOf(100, 51, kAnimProgressbar, 0, w, h);
    EXPECT_EQ(w, 100U);
    EXPECT_EQ(h, 25U);  // the odd last row is unused
    usedSizeOf(100, 51, kAnimBreathing, 7, w, h);
    EXPECT_EQ(w, 100U);
    EXPECT_EQ(h, 51U);
}

TEST(Verdicts, an_image_is_judged_nothing_shown_then_larger_than_screen_then_out_of_screen) {
    EXPECT_EQ(imageFitOf(320, 240, 3, 10, imageConf(kAnimSlideshow, 400, 4)).fit,
              ImageFit::kNothingShown);
    EXPECT_EQ(imageFitOf(320, 240, 100, 1, imageConf(kAnimProgressbar, 1000, 0)).fit,
              ImageFit::kNothingShown);
    EXPECT_EQ(imageFitOf(320, 240, 321, 10, imageConf(kAnimStatic, 0, 0)).fit,
              ImageFit::kLargerThanScreen);
    // Four slides of 320 columns fit where the whole strip would not.
    EXPECT_EQ(imageFitOf(320, 240, 1280, 10, imageConf(kAnimSlideshow, 400, 4)).fit,
              ImageFit::kFits);
    GuiImgConf placed = imageConf(kAnimStatic, 0, 0);
    placed.x = 300;
    const ImageVerdict out = imageFitOf(320, 240, 21, 10, placed);
    EXPECT_EQ(out.fit, ImageFit::kOutOfScreen);
    EXPECT_TRUE(out.place.beyondRight);
}

TEST(Verdicts, font_sizes_are_taken_within_their_bounds_only) {
    EXPECT_EQ(fontSizeFitOf(kMinFontSize), TextFit::kFits);
    EXPECT_EQ(fontSizeFitOf(kMaxFontSize), TextFit::kFits);
    EXPECT_EQ(fontSizeFitOf(kMinFontSize - 1), TextFit::kSizeOutOfRange);
    EXPECT_EQ(fontSizeFitOf(kMaxFontSize + 1), TextFit::kSizeOutOfRange);
}

TEST(Verdicts, a_line_as_tall_as_the_screen_or_its_room_fits_and_one_row_more_does_not) {
    EXPECT_EQ(lineHeightFitOf(240, 240), TextFit::kFits);
    EXPECT_EQ(lineHeightFitOf(241, 240), TextFit::kLineTallerThanScreen);
    const TextRoom room = textRoomOf(320, 240, 300, 200);
    ASSERT_EQ(room.fit, TextFit::kFits);
    EXPECT_EQ(room.w, 20U);
    EXPECT_EQ(room.h, 40U);
    EXPECT_EQ(lineFitOf(40, room), TextFit::kFits);
    EXPECT_EQ(lineFitOf(41, room), TextFit::kLineTallerThanRoom);
}

TEST(Verdicts, a_text_position_on_the_right_edge_or_the_bottom_is_off_the_screen) {
    const TextRoom right = textRoomOf(320, 240, 320, 0);
    EXPECT_EQ(right.fit, TextFit::kPositionOutOfScreen);
    EXPECT_TRUE(right.beyondRight);
    const TextRoom bottom = textRoomOf(320, 240, 0, 240);
    EXPECT_EQ(bottom.fit, TextFit::kPositionOutOfScreen);
    EXPECT_FALSE(bottom.beyondRight);
    EXPECT_EQ(lineFitOf(1, bottom), TextFit::kPositionOutOfScreen);
}

TEST(Verdicts, animation_limits_list_every_breach_duration_first_and_none_when_static) {
    EXPECT_TRUE(animationBreaches(imageConf(kAnimStatic, 0, 0)).empty());
    EXPECT_TRUE(animationBreaches(imageConf(kAnimSlideshow, kMinPeriodMs, kMaxSlides)).empty());
    const auto both = animationBreaches(imageConf(kAnimSlideshow, kMaxCycleMs + 1, kMaxSlides + 1));
    ASSERT_EQ(both.size(), 2U);
    EXPECT_EQ(both[0].limit, AnimationLimit::kDuration);
    EXPECT_EQ(both[0].value, kMaxCycleMs + 1);
    EXPECT_EQ(both[0].min, kMinPeriodMs);
    EXPECT_EQ(both[0].max, kMaxCycleMs);
    EXPECT_EQ(both[1].limit, AnimationLimit::kCount);
    EXPECT_EQ(both[1].value, kMaxSlides + 1U);
    const auto bar = animationBreaches(imageConf(kAnimProgressbar, kMaxProgressMs + 1, 0));
    ASSERT_EQ(bar.size(), 1U);
    EXPECT_STREQ(bar[0].logFormat, "Invalid progressbar duration (%d)");
    EXPECT_TRUE(animationBreaches(imageConf(kAnimBreathing, kMaxCycleMs, 0)).empty());
    EXPECT_EQ(animationBreaches(imageConf(kAnimBreathing, kMinPeriodMs - 1, 0)).size(), 1U);
}

TEST(Verdicts, the_screens_file_limit_is_worded_from_its_size) {
    EXPECT_EQ(screensFileLimitText(), std::to_string(kMaxScreensFileBytes >> 20) + " MiB");
    EXPECT_EQ(kMaxScreensFileBytes, size_t{16} << 20);
}
