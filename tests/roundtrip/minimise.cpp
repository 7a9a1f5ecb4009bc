#include "minimise.h"

#include <algorithm>

namespace kelvane {

namespace {

class Minimiser {
 public:
  Minimiser(ImagePair pair, const std::function<bool(const ImagePair&)>& fails, int attempts)
      : pair_(std::move(pair)), fails_(fails), attempts_(attempts) {}

  ImagePair run() {
    bool smaller = true;
    while (smaller && attempts_ > 0) {
      smaller = false;
      for (size_t size = std::max<size_t>(longest() / 2, 1); size > 0; size /= 2) {
        smaller = without_stretches_of(size) || smaller;
      }
    }
    for (size_t i = 0; i < longest(); ++i) {
      clear_byte(i);
    }
    return pair_;
  }

 private:
  size_t longest() const { return std::max(pair_.old_image.size(), pair_.new_image.size()); }

  bool take_if_it_fails(const ImagePair& candidate) {
    if (attempts_ <= 0) {
      return false;
    }
    --attempts_;
    if (!fails_(candidate)) {
      return false;
    }
    pair_ = candidate;
    return true;
  }

  static bool cut(Bytes& image, size_t position, size_t size) {
    if (position >= image.size()) {
      return false;
    }
    const auto from = image.begin() + static_cast<std::ptrdiff_t>(position);
    const size_t count = std::min(size, image.size() - position);
    image.erase(from, from + static_cast<std::ptrdiff_t>(count));
    return true;
  }

  bool try_cut(size_t position, size_t size, bool in_old, bool in_new) {
    ImagePair candidate = pair_;
    const bool changed_old = in_old && cut(candidate.old_image, position, size);
    const bool changed_new = in_new && cut(candidate.new_image, position, size);
    return (changed_old || changed_new) && take_if_it_fails(candidate);
  }

  // From the end to the start: what stands in front does not move.
  bool without_stretches_of(size_t size) {
    bool smaller = false;
    for (size_t left = longest() / size + 1; left > 0; --left) {
      const size_t position = (left - 1) * size;
      smaller = try_cut(position, size, true, true) || try_cut(position, size, true, false) ||
                try_cut(position, size, false, true) || smaller;
    }
    return smaller;
  }

  void clear_byte(size_t i) {
    ImagePair candidate = pair_;
    bool changed = false;
    for (Bytes* image : {&candidate.old_image, &candidate.new_image}) {
      if (i < image->size() && (*image)[i] != 0) {
        (*image)[i] = 0;
        changed = true;
      }
    }
    if (changed) {
      take_if_it_fails(candidate);
    }
  }

  ImagePair pair_;
  const std::function<bool(const ImagePair&)>& fails_;
  int attempts_;
};

}  // namespace

ImagePair minimised(ImagePair pair, const std::function<bool(const ImagePair&)>& fails,
                    int attempts) {
  return Minimiser(std::move(pair), fails, attempts).run();
}

}  // namespace kelvane
