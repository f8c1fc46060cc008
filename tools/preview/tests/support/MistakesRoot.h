#pragma once

#include <memory>

#include "dravik_test_support/temp_dir.h"

namespace dravik::preview::testsupport {

// A temporary root with the image directory /etc/gui/images below it, holding
// the pictures that data/mistakes.json names: one for each kind of image
// problem (logo.png is fine). nullptr when a picture cannot be written.
std::unique_ptr<dravik::testsupport::TempDir> makeMistakesRoot();

}  // namespace dravik::preview::testsupport
