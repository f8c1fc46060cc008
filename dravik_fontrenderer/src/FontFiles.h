#pragma once

#include <string>
#include <vector>

#include "FaceSet.h"

namespace dravik::fontrenderer {

// Candidates for the first face, in order: the build's configured font file
// when set, then DejaVu Sans.
std::vector<std::string> firstFaceCandidates();

// The fallback faces, in the order they are tried.
std::vector<FaceSource> fallbackFaces();

}  // namespace dravik::fontrenderer
