#include "core/host/browser/frame_table.h"

#include <utility>

namespace varnic::host {

FrameTable::Frame* FrameTable::Find(const std::string& frame_id) {
  const auto it = frames_.find(frame_id);
  return it == frames_.end() ? nullptr : &it->second;
}

const FrameTable::Frame* FrameTable::Find(const std::string& frame_id) const {
  const auto it = frames_.find(frame_id);
  return it == frames_.end() ? nullptr : &it->second;
}

void FrameTable::OnPageAttached(const std::string& session_id, const std::string& target_id,
                                const std::string& context) {
  if (Find(target_id) == nullptr && frames_.size() >= max_frames_) return;
  Frame& frame = frames_[target_id];  // A frame that moves to another process is known already.
  frame.session_id = session_id;
  frame.context = context;
  main_frames_[session_id] = target_id;
}

std::vector<std::string> FrameTable::OnPageDetached(const std::string& session_id) {
  std::vector<std::string> removed;
  const auto main_frame = main_frames_.extract(session_id);
  if (main_frame.empty()) return removed;
  Frame* const frame = Find(main_frame.mapped());
  if (frame == nullptr || frame->session_id != session_id) return removed;
  const Frame* const parent = Find(frame->parent_id);
  if (parent == nullptr) {
    Remove(main_frame.mapped(), removed);
    return removed;
  }
  for (const std::string& child : std::set<std::string>(frame->children)) Remove(child, removed);
  frame->session_id = parent->session_id;
  return removed;
}

void FrameTable::OnFrameAttached(const std::string& session_id, const std::string& frame_id,
                                 const std::string& parent_id) {
  Frame* const parent = Find(parent_id);
  if (parent == nullptr || frame_id == parent_id || Find(frame_id) != nullptr) return;
  if (frames_.size() >= max_frames_) return;
  parent->children.insert(frame_id);
  Frame& frame = frames_[frame_id];
  frame.context = parent->context;
  frame.session_id = session_id;
  frame.parent_id = parent_id;
  frame.origin = parent->origin;  // Its first document is its parent's.
}

std::vector<std::string> FrameTable::OnFrameRemoved(const std::string& frame_id) {
  std::vector<std::string> removed;
  Remove(frame_id, removed);
  return removed;
}

// Without recursion, for a page says how deep its frames are.
void FrameTable::Remove(const std::string& frame_id, std::vector<std::string>& removed) {
  const Frame* const top = Find(frame_id);
  if (top == nullptr) return;
  if (Frame* const parent = Find(top->parent_id)) parent->children.erase(frame_id);
  std::vector<std::string> ids = {frame_id};
  for (size_t i = 0; i < ids.size(); ++i) {
    const auto frame = frames_.extract(ids[i]);
    const std::set<std::string>& children = frame.mapped().children;
    ids.insert(ids.end(), children.begin(), children.end());
  }
  removed.insert(removed.end(), ids.rbegin(), ids.rend());
}

void FrameTable::OnFrameNavigated(const std::string& frame_id, const std::string& origin) {
  if (Frame* const frame = Find(frame_id)) frame->origin = origin;
}

void FrameTable::OnNavigationRequested(const std::string& frame_id) {
  if (Frame* const frame = Find(frame_id)) frame->is_requested = true;
}

void FrameTable::OnNavigationStarted(const std::string& frame_id) {
  Frame* const frame = Find(frame_id);
  if (frame != nullptr) frame->is_requesting = std::exchange(frame->is_requested, false);
}

std::optional<std::string> FrameTable::ContextOf(const std::string& frame_id) const {
  const Frame* const frame = Find(frame_id);
  if (frame == nullptr) return std::nullopt;
  return frame->context;
}

std::optional<std::string> FrameTable::SessionOf(const std::string& frame_id) const {
  const Frame* const frame = Find(frame_id);
  if (frame == nullptr) return std::nullopt;
  return frame->session_id;
}

std::string FrameTable::AskerOf(const std::string& frame_id, bool is_document) const {
  const Frame* const frame = Find(frame_id);
  if (frame == nullptr) return kOpaqueOrigin;
  if (!is_document) return frame->origin;
  if (const Frame* const parent = Find(frame->parent_id)) return parent->origin;
  return frame->is_requesting ? frame->origin : kOpaqueOrigin;
}

}  // namespace varnic::host
