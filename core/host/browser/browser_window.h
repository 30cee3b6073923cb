#ifndef CORE_HOST_BROWSER_BROWSER_WINDOW_H_
#define CORE_HOST_BROWSER_BROWSER_WINDOW_H_

#include <cstdint>
#include <optional>
#include <string>

namespace varnic::host {

// What is to be seen of a window, or of a tab that a person or a page has opened.
struct BrowserWindow {
  std::string target_id;
  std::string context;  // Empty: of the persistent profile itself; else of an incognito profile.
  std::string url;      // Where it is; where it was sent, while it is still blank.
  std::string title;
  bool headless = true;
};

// A window to be opened.
struct WindowOptions {
  std::string url;  // Absolute; empty: about:blank.
  bool headless = true;
  // Of the screen, in pixels, for both pairs. Absent: the browser's own choice.
  struct Position {
    int32_t x = 0;
    int32_t y = 0;
  };
  struct Size {
    uint32_t width = 0;
    uint32_t height = 0;
  };
  std::optional<Position> position = std::nullopt;
  std::optional<Size> size = std::nullopt;
};

// Hears of the windows and the incognito contexts of a browser.
class WindowVisitor {
 public:
  virtual ~WindowVisitor() = default;
  // Popups that pages open, and windows that a person opens, come here like any other.
  virtual void OnWindowOpened(const BrowserWindow& window) = 0;
  virtual void OnWindowChanged(const BrowserWindow& window) = 0;  // Its url or its title.
  virtual void OnWindowClosed(const BrowserWindow& window) = 0;
  // The incognito context is gone, after its windows.
  virtual void OnContextClosed(const std::string& context) = 0;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_BROWSER_WINDOW_H_
