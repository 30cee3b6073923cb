#ifndef CORE_HOST_BROWSER_PAGE_DIALOGS_H_
#define CORE_HOST_BROWSER_PAGE_DIALOGS_H_

#include <string>

#include "core/host/browser/devtools_pipe.h"

namespace varnic::host {

// Answers the dialogs of a page that no person sees, from now on: leaving it is allowed, alerts are
// closed, and everything else is cancelled. A page waits for as long as its dialog is open. The
// session's Page domain is enabled by others. The pipe's thread.
void AnswerPageDialogs(DevToolsPipe& devtools, const std::string& session_id);

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_PAGE_DIALOGS_H_
