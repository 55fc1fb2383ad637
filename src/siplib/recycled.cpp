#include "siplib/recycled.h"

namespace siplib {
namespace {

constexpr std::size_t kMostTexts = 32;
/// What a new one begins with: few headers and addresses are longer. What has grown beyond the second is not kept.
constexpr std::size_t kUsualText = 512;
constexpr std::size_t kLargestKept = 4096;

struct Texts {
  std::array<std::string, kMostTexts> kept;
  std::size_t count = 0;
  ~Texts();
};

thread_local bool ended = false;

Texts::~Texts() {
  ended = true;
}

Texts& mine() {
  static thread_local Texts texts;
  return texts;
}

}  // namespace

std::string Scratch::take() {
  if (kRecycles && !ended) {
    if (Texts& texts = mine(); texts.count > 0) return std::move(texts.kept[--texts.count]);
  }
  std::string text;
  if (kRecycles) text.reserve(kUsualText);
  return text;
}

void Scratch::give(std::string& text) noexcept {
  if (!kRecycles || ended || text.capacity() < kUsualText || text.capacity() > kLargestKept) return;
  Texts& texts = mine();
  if (texts.count == kMostTexts) return;
  text.clear();
  texts.kept[texts.count++] = std::move(text);
}

}  // namespace siplib
