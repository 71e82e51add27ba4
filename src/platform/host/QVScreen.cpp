#include "qvcore/platform/QVScreen.h"

#include <mutex>

namespace qv {

namespace {

struct MainScreenSlot {
  std::mutex mutex;
  std::shared_ptr<QVScreen> screen = std::make_shared<QVScreen>(QVRect{}, 1.0);
};

MainScreenSlot& slot() {
  // Never destroyed: payloads may be built while the process exits.
  static auto* mainScreen = new MainScreenSlot;
  return *mainScreen;
}

}  // namespace

std::shared_ptr<QVScreen> QVScreen::mainScreen() {
  std::lock_guard lock(slot().mutex);
  return slot().screen;
}

void QVScreen::setMainScreen(double width, double height, double scale) {
  auto screen = std::make_shared<QVScreen>(QVRect{0.0, 0.0, width, height}, scale);
  std::lock_guard lock(slot().mutex);
  slot().screen = std::move(screen);
}

void QVScreen::removeMainScreen() {
  std::lock_guard lock(slot().mutex);
  slot().screen.reset();
}

}  // namespace qv
