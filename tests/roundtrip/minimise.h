#pragma once

#include <functional>

#include "image_pair.h"

namespace kelvane {

// Makes a pair smaller, as long as `fails` holds for it: takes stretches out of one image or both
// and sets bytes to 0, larger stretches first, until nothing more can go or `fails` was asked
// `attempts` times. `fails` holds for the pair given and for the result.
ImagePair minimised(ImagePair pair, const std::function<bool(const ImagePair&)>& fails,
                    int attempts = 4000);

}  // namespace kelvane
