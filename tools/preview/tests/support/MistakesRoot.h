#pragma once

#include <string>

namespace dravik::preview::testsupport {

// A temporary root with the image directory /etc/gui/images below it, holding
// the pictures that data/mistakes.json names: one for each kind of image
// problem (logo.png is fine). Returns the root; "" when it cannot be made.
std::string makeMistakesRoot();

}  // namespace dravik::preview::testsupport
