#ifndef CORE_HOST_BROWSER_FRAME_TABLE_H_
#define CORE_HOST_BROWSER_FRAME_TABLE_H_

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace varnic::host {

// The frames of a browser's pages: to which context they belong, and whose documents they show.
// Told by the pages' sessions; a page's main frame has the id of its target. An id that is not
// known is left alone. One thread only.
class FrameTable {
 public:
  // What an origin is that nobody knows, or nobody may know.
  static constexpr char kOpaqueOrigin[] = "null";

  explicit FrameTable(size_t max_frames = 100'000) : max_frames_(max_frames) {}

  void OnPageAttached(const std::string& session_id, const std::string& target_id,
                      const std::string& context);
  // What is gone now: the page's frames, but not one that lives on in a page around it. The frame
  // itself comes behind those inside it.
  std::vector<std::string> OnPageDetached(const std::string& session_id);

  void OnFrameAttached(const std::string& session_id, const std::string& frame_id,
                       const std::string& parent_id);
  // The frame and those inside it, which are gone now.
  std::vector<std::string> OnFrameRemoved(const std::string& frame_id);
  // The frame shows another document.
  void OnFrameNavigated(const std::string& frame_id, const std::string& origin);
  // A document wants the frame to show another one, and then: the browser begins to, because a
  // document or a client wants it.
  void OnNavigationRequested(const std::string& frame_id);
  void OnNavigationStarted(const std::string& frame_id);

  // Nothing of an unknown frame.
  std::optional<std::string> ContextOf(const std::string& frame_id) const;
  std::optional<std::string> SessionOf(const std::string& frame_id) const;
  // The origin of the document that asks for something in the frame; for the frame's own document
  // if `is_document`. "null" if none does.
  std::string AskerOf(const std::string& frame_id, bool is_document) const;

  size_t size() const { return frames_.size(); }

 private:
  struct Frame {
    std::string context;
    std::string session_id;
    std::string parent_id;  // Empty: a page's main frame.
    std::string origin = kOpaqueOrigin;
    bool is_requested = false;   // A document wants another one in it.
    bool is_requesting = false;  // The browser is about to show that.
    std::set<std::string> children;
  };

  Frame* Find(const std::string& frame_id);
  const Frame* Find(const std::string& frame_id) const;
  void Remove(const std::string& frame_id, std::vector<std::string>& removed);

  const size_t max_frames_;
  std::map<std::string, Frame> frames_;
  std::map<std::string, std::string> main_frames_;  // By session.
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_FRAME_TABLE_H_
