#ifndef CORE_HOST_BROWSER_CONTEXT_FINDER_H_
#define CORE_HOST_BROWSER_CONTEXT_FINDER_H_

#include <functional>
#include <optional>
#include <string>

#include "core/host/browser/devtools_pipe.h"
#include "core/host/browser/frame_table.h"
#include "core/net/lifetime.h"

namespace varnic::host {

// Finds the browser context of a request by the "frame" that the browser names with it. For what a
// page asks for that is a frame of the table, also if a dedicated worker fetches it, a download or
// the page's icon. Shared and service workers, and dedicated ones that start others, are named by
// their target's id: there, the browser is asked.
//
// Lives on the pipe's thread; what it is given outlives it.
class ContextFinder {
 public:
  // The empty context is the persistent profile. Nothing: the frame is not known, and there is more
  // than one profile that it may be of.
  using OnContext = std::function<void(const std::optional<std::string>& context)>;

  ContextFinder(DevToolsPipe& devtools, const FrameTable& frames)
      : devtools_(devtools), frames_(frames) {}
  ContextFinder(const ContextFinder&) = delete;
  ContextFinder& operator=(const ContextFinder&) = delete;

  // `on_context` runs once, maybe at once, and not after the finder is destroyed.
  void Find(const std::string& frame_id, const OnContext& on_context);

 private:
  // `target_context` is what the browser calls the context; empty if there is no such target.
  void Resolve(const std::string& frame_id, const std::string& target_context,
               OnContext on_context);

  DevToolsPipe& devtools_;
  const FrameTable& frames_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_CONTEXT_FINDER_H_
